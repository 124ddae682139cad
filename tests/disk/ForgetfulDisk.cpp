#include "disk/ForgetfulDisk.h"

#include <fcntl.h>
#include <linux/falloc.h>
#include <stdio.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <set>
#include <utility>

namespace tarnwell::testing {

namespace {

constexpr int kRemovalsPerSweep = 256;
/// What a file system without a limit says.
constexpr std::int64_t kLargeDisk = std::int64_t{1} << 40;

timespec now() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return time;
}

}  // namespace

ForgetfulDisk::ForgetfulDisk(Mode mode) : mode_(mode) {
    File root;
    root.attributes.mode = S_IFDIR | 0700;
    root.attributes.modified = root.attributes.accessed = root.changed = now();
    root.durableAttributes = root.attributes;
    root.links = 1;
    root.parent = kRoot;
    files_.emplace(kRoot, std::move(root));
}

ForgetfulDisk::File* ForgetfulDisk::file(Id id) {
    const auto found = files_.find(id);
    return found == files_.end() ? nullptr : &found->second;
}

ForgetfulDisk::Id ForgetfulDisk::lookUp(Id folder, std::string_view name) {
    const File* parent = file(folder);
    if (!parent) return 0;
    const auto found = parent->entries.find(std::string(name));
    return found == parent->entries.end() ? 0 : found->second;
}

// Programs' calls

ForgetfulDisk::Id ForgetfulDisk::create(Id folder, std::string_view name, mode_t mode, int& error,
                                        std::string target, Id number) {
    File* parent = file(folder);
    error = !parent || parent->isGone ? ENOENT : parent->entries.contains(std::string(name)) ? EEXIST : 0;
    if (error == 0 && !hasSpace(1)) error = ENOSPC;
    if (error != 0) return 0;
    const Id id = number != 0 ? number : last_ + 1;
    last_ = std::max(last_, id);
    File made;
    made.attributes.mode = mode;
    made.attributes.modified = made.attributes.accessed = made.changed = now();
    made.links = 1;
    made.parent = S_ISDIR(mode) ? folder : 0;
    made.target = std::move(target);
    note({.entries = {{folder, std::string(name), id}},
          .created = id,
          .file = id,
          .attributes = made.attributes});
    files_.emplace(id, std::move(made));
    parent->entries[std::string(name)] = id;
    parent->attributes.modified = parent->changed = now();
    return id;
}

int ForgetfulDisk::link(Id id, Id folder, std::string_view name) {
    File* parent = file(folder);
    File* linked = file(id);
    if (!parent || !linked || linked->links == 0) return ENOENT;
    if (S_ISDIR(linked->attributes.mode)) return EPERM;
    if (parent->entries.contains(std::string(name))) return EEXIST;
    if (!hasSpace(1)) return ENOSPC;
    parent->entries[std::string(name)] = id;
    ++linked->links;
    linked->changed = parent->attributes.modified = parent->changed = now();
    note({.entries = {{folder, std::string(name), id}}});
    return 0;
}

int ForgetfulDisk::remove(Id folder, std::string_view name, bool isFolder) {
    const Id id = lookUp(folder, name);
    if (id == 0) return ENOENT;
    File& removed = files_.at(id);
    const bool folderFound = S_ISDIR(removed.attributes.mode);
    if (folderFound != isFolder) return folderFound ? EISDIR : ENOTDIR;
    if (!removed.entries.empty()) return ENOTEMPTY;
    File& parent = files_.at(folder);
    parent.entries.erase(std::string(name));
    parent.attributes.modified = parent.changed = now();
    note({.entries = {{folder, std::string(name), 0}}, .removedFolder = isFolder ? id : 0});
    unlinked(id);
    return 0;
}

int ForgetfulDisk::rename(Id from, std::string_view name, Id to, std::string_view newName, unsigned flags) {
    const Id id = lookUp(from, name);
    const Id target = lookUp(to, newName);
    if (id == 0 || !file(to)) return ENOENT;
    if ((flags & ~(RENAME_NOREPLACE | RENAME_EXCHANGE)) != 0) return EINVAL;
    if ((flags & RENAME_NOREPLACE) != 0 && target != 0) return EEXIST;
    const bool exchanges = (flags & RENAME_EXCHANGE) != 0;
    if (exchanges && target == 0) return ENOENT;
    if (id == target) return 0;
    File& moved = files_.at(id);
    const bool isFolder = S_ISDIR(moved.attributes.mode);
    Operation operation;
    if (target != 0 && !exchanges) {
        const File& replaced = files_.at(target);
        const bool replacesFolder = S_ISDIR(replaced.attributes.mode);
        if (isFolder != replacesFolder) return replacesFolder ? EISDIR : ENOTDIR;
        if (!replaced.entries.empty()) return ENOTEMPTY;
        if (replacesFolder) operation.removedFolder = target;
    }
    operation.entries = {{from, std::string(name), exchanges ? target : 0}, {to, std::string(newName), id}};
    note(std::move(operation));
    files_.at(from).entries.erase(std::string(name));
    files_.at(to).entries[std::string(newName)] = id;
    moved.changed = now();
    if (isFolder) moved.parent = to;
    if (exchanges) {
        files_.at(from).entries[std::string(name)] = target;
        if (S_ISDIR(files_.at(target).attributes.mode)) files_.at(target).parent = from;
    } else if (target != 0) {
        unlinked(target);
    }
    for (const Id folder : {from, to})
        files_.at(folder).attributes.modified = files_.at(folder).changed = now();
    return 0;
}

int ForgetfulDisk::write(Id id, std::int64_t offset, std::string_view bytes) {
    File& written = files_.at(id);
    if (!hasSpace(written.contents.newPages(offset, std::ssize(bytes)))) return ENOSPC;
    const auto before = written.contents.pages();
    written.contents.setPosition(noted_);
    written.contents.write(offset, bytes);
    addPages(before, written);
    written.attributes.modified = written.changed = now();
    return 0;
}

int ForgetfulDisk::truncate(Id id, std::int64_t size) {
    File& cut = files_.at(id);
    const auto before = cut.contents.pages();
    cut.contents.setPosition(noted_);
    note({.file = id, .truncation = cut.contents.truncate(size)});
    addPages(before, cut);
    cut.attributes.modified = cut.changed = now();
    return 0;
}

int ForgetfulDisk::allocate(Id id, int mode, std::int64_t offset, std::int64_t count) {
    if ((mode & ~(FALLOC_FL_KEEP_SIZE | FALLOC_FL_PUNCH_HOLE)) != 0) return EOPNOTSUPP;
    FileContents& contents = files_.at(id).contents;
    const auto before = contents.pages();
    contents.setPosition(noted_);
    if ((mode & FALLOC_FL_PUNCH_HOLE) != 0) {
        contents.punch(offset, count);
    } else {
        if (!hasSpace(contents.newPages(offset, count))) return ENOSPC;
        contents.allocate(offset, count, (mode & FALLOC_FL_KEEP_SIZE) != 0);
    }
    addPages(before, files_.at(id));
    return 0;
}

void ForgetfulDisk::attributesChanged(Id id) {
    File& changed = files_.at(id);
    changed.changed = now();
    note({.file = id, .attributes = changed.attributes});
}

// Space

bool ForgetfulDisk::hasSpace(std::int64_t pages) const {
    return pages == 0 || !mostPages_ || usedPages_ + pages <= *mostPages_;
}

void ForgetfulDisk::limitFreeSpace(std::optional<std::int64_t> bytes) {
    mostPages_.reset();
    if (bytes) mostPages_ = usedPages_ + *bytes / FileContents::kPage;
}

ForgetfulDisk::Space ForgetfulDisk::space() const {
    const auto used = usedPages_ * FileContents::kPage;
    return {used, mostPages_ ? *mostPages_ * FileContents::kPage : used + kLargeDisk};
}

void ForgetfulDisk::unlinked(Id id) {
    File& removed = files_.at(id);
    --removed.links;
    removed.changed = now();
    checkGone(id);
    if (++removals_ >= kRemovalsPerSweep) sweep();
}

void ForgetfulDisk::release(Id id, std::uint64_t count) {
    File* released = file(id);
    if (!released) return;
    released->references -= std::min(count, released->references);
    checkGone(id);
}

void ForgetfulDisk::checkGone(Id id) {
    File& checked = files_.at(id);
    if (checked.links > 0 || checked.references > 0 || checked.isGone) return;
    checked.isGone = true;
    usedPages_ -= checked.contents.pages();
}

void ForgetfulDisk::sweep() {
    removals_ = 0;
    std::set<Id> known;
    for (const auto& [id, each] : files_) {
        for (const auto& [name, entry] : each.durableEntries)
            known.insert(entry);
    }
    for (const auto& operation : journal_) {
        known.insert({operation.created, operation.file, operation.removedFolder});
        for (const auto& entry : operation.entries)
            known.insert({entry.folder, entry.id});
    }
    std::erase_if(files_,
                  [&](const auto& each) { return each.second.isGone && !known.contains(each.first); });
}

// The metadata journal

void ForgetfulDisk::note(Operation operation) {
    journal_.push_back(std::move(operation));
    ++noted_;
}

void ForgetfulDisk::commit(const Operation& operation) {
    for (const auto& [folder, name, id] : operation.entries) {
        auto& entries = files_.at(folder).durableEntries;
        if (id == 0) {
            entries.erase(name);
        } else {
            entries[name] = id;
        }
    }
    if (operation.attributes) files_.at(operation.file).durableAttributes = *operation.attributes;
    if (operation.truncation != 0) files_.at(operation.file).contents.commitTruncation(operation.truncation);
}

void ForgetfulDisk::commitFirst(std::size_t count) {
    for (; count > 0; --count) {
        commit(journal_.front());
        journal_.pop_front();
    }
}

bool ForgetfulDisk::names(const Operation& operation, Id id) {
    return operation.created == id || operation.removedFolder == id ||
           std::any_of(operation.entries.begin(), operation.entries.end(),
                       [id](const auto& entry) { return entry.id == id; });
}

bool ForgetfulDisk::buildsOn(const Operation& later, const Operation& earlier) {
    if (later.file != 0 && later.entries.empty()) {
        // Of one file's attributes and truncations each stays in its order.
        return earlier.created == later.file ||
               (earlier.file == later.file && (earlier.truncation != 0) == (later.truncation != 0));
    }
    return std::any_of(later.entries.begin(), later.entries.end(), [&](const auto& entry) {
        if (names(earlier, entry.folder) || (entry.id != 0 && names(earlier, entry.id))) return true;
        return std::any_of(earlier.entries.begin(), earlier.entries.end(), [&](const auto& other) {
            return (other.folder == entry.folder && other.name == entry.name) ||
                   other.folder == later.removedFolder;
        });
    });
}

void ForgetfulDisk::commitSome(const std::function<bool(const Operation&)>& wanted) {
    std::vector<bool> chosen(journal_.size());
    for (std::size_t at = journal_.size(); at-- > 0;) {
        chosen[at] = chosen[at] || wanted(journal_[at]);
        for (std::size_t before = 0; chosen[at] && before < at; ++before)
            chosen[before] = chosen[before] || buildsOn(journal_[at], journal_[before]);
    }
    std::deque<Operation> rest;
    for (std::size_t at = 0; at < journal_.size(); ++at) {
        if (chosen[at]) {
            commit(journal_[at]);
        } else {
            rest.push_back(std::move(journal_[at]));
        }
    }
    journal_ = std::move(rest);
}

void ForgetfulDisk::sync(Id id, bool dataOnly) {
    File& synced = files_.at(id);
    const bool isFolder = S_ISDIR(synced.attributes.mode);
    if (mode_ == Mode::kOrdered && synced.contents.hasGrown()) {
        // Its new size is written after the bytes, as the latest operation of the journal.
        commitFirst(journal_.size());
    } else if (mode_ == Mode::kOrdered) {
        const auto concerns = [&](const Operation& operation) {
            if (isFolder && std::any_of(operation.entries.begin(), operation.entries.end(),
                                        [id](const auto& entry) { return entry.folder == id; }))
                return true;
            if (operation.created == id || (operation.file == id && operation.truncation != 0)) return true;
            return !dataOnly && (operation.file == id || names(operation, id));
        };
        const auto last = std::find_if(journal_.rbegin(), journal_.rend(), concerns);
        commitFirst(static_cast<std::size_t>(journal_.rend() - last));
    } else if (isFolder) {
        commitSome([id](const Operation& operation) {
            return std::any_of(operation.entries.begin(), operation.entries.end(),
                               [id](const auto& entry) { return entry.folder == id; });
        });
    }
    synced.contents.sync();
    if (!dataOnly) {
        std::erase_if(journal_, [id](const Operation& operation) {
            return operation.file == id && operation.attributes && operation.entries.empty();
        });
        synced.durableAttributes = synced.attributes;
        for (auto& operation : journal_) {
            if (operation.created == id) operation.attributes = synced.attributes;
        }
    }
}

void ForgetfulDisk::failSync(Id id) {
    files_.at(id).contents.loseUnsynced();
}

}  // namespace tarnwell::testing
