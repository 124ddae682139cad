#include "store/JournalWorld.h"

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "store/ContentVersion.h"
#include "store/StorePersistence.h"
#include "util/TWUtils.h"

namespace tarnwell::testing {

namespace {

const std::string kRoot = "/Share/";

/// In two parts, as a program might. What it is comes before what it holds.
void writeFile(const std::string& path, const std::string& contents, const ContentVersion& version) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (version.set(file) != 0 || ::ftruncate(file, 0) != 0) throw std::runtime_error("cannot begin " + path);
    const std::size_t half = contents.size() / 2;
    if (::write(file, contents.data(), half) < 0 ||
        ::write(file, contents.data() + half, contents.size() - half) < 0) {
        throw std::runtime_error("cannot write " + path);
    }
    ::close(file);
}

std::string withoutRoot(std::string_view path) {
    return std::string(path.starts_with(kRoot) ? path.substr(kRoot.size()) : path);
}

std::string joined(const std::set<std::string>& lines) {
    std::string text;
    for (const auto& line : lines)
        text += (text.empty() ? "" : "; ") + line;
    return text;
}

void setSize(TWVirtualFile& file, std::size_t size) {
    file.AllocationSize = file.EndOfFile = static_cast<std::int64_t>(size);
}

}  // namespace

std::string bytesOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return "(none)";
    return {std::istreambuf_iterator<char>(in), {}};
}

TWVirtualFilePtr JournalWorld::item(const std::string& path) const {
    return store.fileWithPath(kRoot + path);
}

void JournalWorld::known(const std::string& id, const std::string& path, const char* contents) {
    const auto lock = store.beginWriteStorage();
    const std::string folder(deletingLastPathComponent(kRoot + path));
    const auto parent = store.fileWithPath(folder);
    const auto added = makeItem(id, parent ? parent->InternalName.view() : "s", lastPathComponent(path),
                                contents != nullptr);
    added->UploadUrl = "url";
    added->Tick = 1;
    setSize(*added, contents ? std::string(contents).size() : 0);
    store.addFileMetadata(added);
    names_[id] = id;
    remote_.items[id] = {added->ParrentId.str(), added->PublicName.str(), contents ? contents : "",
                         added->IsFile};
    if (!contents) return;
    added->UploadName = "U" + id;
    added->DownloadDate = clock.now();
    writeFile(layout.cachePathForFile(*added), contents, ContentVersion::clean(added->UploadName.view()));
}

void JournalWorld::make(const std::string& path, bool isFolder) {
    const auto change = store.beginLocalChange();
    const auto folder = store.fileWithPath(deletingLastPathComponent(kRoot + path));
    const auto made = store.createFile(lastPathComponent(path), share, folder, isFolder);
    (void)nameOf(made->InternalName);
    if (!isFolder) made->LocallyUpdated = true;
    journal().addChangeToJournal(journal().createJournalForFile(made, kJournalCreate));
}

void JournalWorld::write(const std::string& path, const std::string& contents) {
    const auto file = item(path);
    {
        const auto change = store.beginLocalChange();
        file->LocallyUpdated = true;
        store.markChanged(*file);
    }
    writeFile(layout.cachePathForFile(*file), contents, ContentVersion::edited(file->UploadName.view()));
    const auto change = store.beginLocalChange();
    setSize(*file, contents.size());
    file->LocallyUpdated = false;
    journal().addChangeToJournal(journal().createJournalForFile(file, kJournalUpdate));
}

void JournalWorld::save(const std::string& path, const std::string& contents) {
    create(path);
    write(path, contents);
}

bool JournalWorld::rename(const std::string& from, const std::string& to) {
    const auto lock = store.beginWriteStorage();
    const auto folder = store.fileWithPath(deletingLastPathComponent(kRoot + to));
    return store.changeParentOfFile(item(from), folder ? folder->InternalName.view() : "s",
                                    lastPathComponent(to));
}

void JournalWorld::remove(const std::string& path) {
    const auto file = item(path);
    file->IsFile ? store.removeFile(file) : store.removeFolderRecursively(file);
}

void JournalWorld::run(const std::string& steps) {
    std::stringstream all(steps);
    for (std::string step; std::getline(all, step, ';');) {
        std::stringstream words(step);
        std::string what, first, second;
        words >> what >> first >> second;
        if (what == "save") save(first, second);
        if (what == "create") create(first);
        if (what == "write") write(first, second);
        if (what == "mkdir") mkdir(first);
        if (what == "rm") remove(first);
        if (what == "sync" && !store.persistence().save()) throw std::runtime_error("cannot save");
        if (what == "mv" && !rename(first, second)) throw std::runtime_error("cannot " + step);
        background.runAll();
    }
}

std::string JournalWorld::nameOf(const SharedString& id) {
    const auto [it, isNew] = names_.try_emplace(id.str());
    if (isNew) {
        int number = 0;
        for (const auto& [other, name] : names_)
            number += name.starts_with("new") ? 1 : 0;
        it->second = "new" + std::to_string(number + 1);
    }
    return it->second;
}

std::string JournalWorld::contentsOf(const LocalJournal& entry) const {
    if (entry.File->UploadName.empty()) return "";
    return bytesOf(layout.cachePathForUpload(*entry.File));
}

std::string JournalWorld::shown() {
    background.runAll();
    const auto lock = store.beginReadJournal();
    std::string text;
    for (const auto& entry : journal().journalItems()) {
        if (!text.empty()) text += "; ";
        text += std::string(journalEventName(entry->LocalJournalType)) + " " +
                nameOf(entry->File->InternalName) + " " + withoutRoot(entry->CurrentPath.view());
        if (entry->File->IsFile && bringsContents(*entry)) text += "=" + contentsOf(*entry);
        const bool moves =
            entry->LocalJournalType == kJournalRename || entry->LocalJournalType == kJournalUpdate;
        if (moves && entry->OriginalPath) text += "<" + withoutRoot(entry->OriginalPath.view());
    }
    return text;
}

std::string JournalWorld::tree() {
    std::set<std::string> lines;
    for (const auto& file : store.allFiles()) {
        lines.insert(withoutRoot(file->FullPath.view()) + (file->IsFile ? " " : "/ ") +
                     nameOf(file->InternalName) +
                     (file->IsFile ? "=" + bytesOf(layout.cachePathForFile(*file)) : ""));
    }
    return joined(lines);
}

std::string RemoteTree::path(const std::string& id) const {
    const auto& at = items.at(id);
    return at.parent == "s" ? at.name : path(at.parent) + "/" + at.name;
}

std::string JournalWorld::remoteTree() const {
    std::set<std::string> lines;
    for (const auto& [id, at] : remote_.items) {
        const auto name = names_.find(id);
        lines.insert(remote_.path(id) + (at.isFile ? " " : "/ ") +
                     (name == names_.end() ? id : name->second) + (at.isFile ? "=" + at.contents : ""));
    }
    return joined(lines);
}

/// Why an item cannot be where a record says.
std::string RemoteTree::whyNotAt(const std::string& id, const TWVirtualFile& file) const {
    const std::string parent = file.ParrentId.str();
    for (std::string at = parent; at != "s"; at = items.at(at).parent) {
        if (at == id) return "below itself";
        if (!items.contains(at)) return "no parent";
    }
    for (const auto& [other, placed] : items) {
        if (other != id && placed.parent == parent &&
            keyFromPath(placed.name) == keyFromPath(file.PublicName.view())) {
            return "taken by " + other;
        }
    }
    return "";
}

std::string RemoteTree::perform(const LocalJournal& entry, const std::string& contents,
                                const std::function<bool(const std::string&)>& isHere) {
    const auto& file = *entry.File;
    const std::string id = file.InternalName.str();
    const bool exists = items.contains(id);
    const bool isDoubtful = doubtful.contains(id);
    const std::string what = std::string(journalEventName(entry.LocalJournalType)) + " " + id + " " +
                             entry.CurrentPath.str() + ": ";
    if (entry.LocalJournalType == kJournalDelete) {
        if (!exists && !isDoubtful) return what + "unknown";
        std::vector<std::string> below;
        for (const auto& [other, at] : items) {
            for (std::string up = at.parent; up != "s"; up = items.at(up).parent) {
                if (up == id) below.push_back(other);
            }
        }
        for (const auto& other : below) {
            if (isHere(other)) return what + "takes " + other + " along";
            items.erase(other);
            // It may be deleted once more.
            doubtful.insert(other);
        }
        items.erase(id);
        return "";
    }
    if (exists == (entry.LocalJournalType == kJournalCreate) && !isDoubtful) {
        return what + (exists ? "exists" : "unknown");
    }
    if (!exists && entry.LocalJournalType != kJournalCreate) return "";
    if (const auto why = whyNotAt(id, file); !why.empty()) return what + why;
    auto& at = items[id];
    at.parent = file.ParrentId.str();
    at.name = file.PublicName.str();
    at.isFile = file.IsFile;
    if (file.IsFile && bringsContents(entry)) at.contents = contents;
    return "";
}

std::string JournalWorld::perform(const LocalJournal& entry) {
    (void)nameOf(entry.File->InternalName);
    return remote_.perform(entry, contentsOf(entry),
                           [this](const std::string& id) { return store.fileWithId(id) != nullptr; });
}

void JournalWorld::beginSending() {
    background.runAll();
    const auto lock = store.beginWriteJournal();
    const auto entries = journal().journalItems();
    if (entries.empty()) return;
    sent_ = *entries.begin();
    if (sent_->CopyingFile) throw std::runtime_error("a copy does not end");
    journal().setTransmitting(sent_, true);
}

std::string JournalWorld::endSending(Outcome outcome) {
    const auto lock = store.beginWriteJournal();
    const auto entry = std::exchange(sent_, nullptr);
    std::string problem;
    if (outcome != Outcome::kFailed) problem = perform(*entry);
    if (outcome == Outcome::kDone) {
        journal().removeUploadFileData(*entry->File);
        journal().deleteJournalEntry(entry);
        return problem;
    }
    remote_.doubtful.insert(entry->File->InternalName.str());
    journal().setTransmitting(entry, false);
    if (bringsContents(*entry)) {
        journal().deleteJournalEntry(entry);
        journal().addChangeToJournal(entry);
    }
    return problem;
}

std::string JournalWorld::performAll() {
    while (!journal().journalItems().empty()) {
        beginSending();
        if (auto problem = endSending(Outcome::kDone); !problem.empty()) return problem;
    }
    return "";
}

}  // namespace tarnwell::testing
