#include "store/UnsentContents.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <unordered_set>
#include <utility>

#include "store/ContentVersion.h"
#include "store/LocalChangeJournal.h"
#include "store/StoreIndex.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kAttributesSuffix = ".attrs";

bool isRegularFile(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool isOwn(const std::string& path) {
    const auto version = ContentVersion::of(path);
    return version && version->isOwn();
}

/// Never sent, and not known to the service from before.
bool isLocalOnly(const TWVirtualFile& file) {
    return CacheLayout::isPathIgnored(file.PublicName.view(), !file.IsFile) && file.UploadUrl.empty();
}

}  // namespace

UnsentContents::Count UnsentContents::count() const {
    const auto lock = store_.beginReadStorage();
    Count count;
    count.changes = store_.journal().backlog().changes;
    for (const auto& stored : index_.files()) {
        const auto& file = *stored.file;
        if (!file.IsFile) continue;
        if (isLocalOnly(file)) {
            count.localFiles += file.size() > 0 ? 1 : 0;
        } else if (file.LocallyUpdated.value_or(false) &&
                   !store_.journal().hasPendingContents(file.InternalName.view())) {
            ++count.changes;
        }
    }
    return count;
}

bool UnsentContents::isUnsent(const TWVirtualFile& file) const {
    return file.LocallyUpdated.value_or(false) || isLocalOnly(file) ||
           store_.journal().hasPendingContents(file.InternalName.view()) ||
           isOwn(store_.layout().cachePathForFile(file));
}

/// The newest contents of each item lie in the cache, as a rule.
void UnsentContents::addRecords(std::string_view shareId, std::vector<Item>& items) const {
    for (const auto* file : index_.shareFiles().all(shareId)) {
        if (!file->IsFile || !isUnsent(*file)) continue;
        const auto path = store_.layout().cachePathForFile(*file);
        const auto version = ContentVersion::of(path);
        const bool isOther = version && !version->isOwn() && !version->isOf(file->UploadName.view()) &&
                             !file->LocallyUpdated.value_or(false);
        if (isRegularFile(path) && !isOther) items.push_back({*file, path});
    }
}

/// Upload copies of items whose newest contents are not in the cache. Of an item the last counts.
void UnsentContents::addEntries(std::string_view shareId, std::vector<Item>& items) const {
    auto entries = store_.journal().journalEntriesForShare(shareId);
    std::reverse(entries.begin(), entries.end());
    std::unordered_set<std::string> found;
    for (const auto& item : items)
        found.insert(item.file.InternalName.str());
    for (const auto& entry : entries) {
        const auto& file = *entry->File;
        if (!bringsContents(*entry) || !file.IsFile || file.UploadName.empty()) continue;
        if (found.contains(file.InternalName.str())) continue;
        const auto copy = store_.layout().cachePathForUpload(file);
        if (!isRegularFile(copy)) {
            TWLog(kLogMain, "Warning! The unsent contents of %@ are not here.", entry->CurrentPath);
            continue;
        }
        found.insert(file.InternalName.str());
        items.push_back({file, copy});
        items.back().file.FullPath = entry->CurrentPath;
    }
}

/// Cache files that wait for a record that a catch-up has not brought yet.
void UnsentContents::addUnknown(std::string_view shareId, std::vector<Item>& items) const {
    ManagedShare share;
    share.ShareId = std::string(shareId);
    const auto stored = index_.shareWithId(shareId);
    const std::string name = stored ? stored->DisplayName.value_or("") : "";
    std::error_code error;
    for (fs::directory_iterator entry(store_.layout().cachePathForShare(share), error), end;
         !error && entry != end; entry.increment(error)) {
        const auto id = entry->path().filename().native();
        const auto path = entry->path().native();
        if (id.ends_with(kAttributesSuffix) || index_.fileWithId(id) || !isRegularFile(path) || !isOwn(path))
            continue;
        Item item;
        item.file.ShareId = shareId;
        item.file.PublicName = id;
        item.file.FullPath = "/" + name + "/" + id;
        item.bytesPath = path;
        items.push_back(std::move(item));
    }
}

std::vector<UnsentContents::Item> UnsentContents::ofShare(std::string_view shareId) const {
    const auto lock = store_.beginReadStorage();
    std::vector<Item> items;
    addRecords(shareId, items);
    addEntries(shareId, items);
    addUnknown(shareId, items);
    return items;
}

int UnsentContents::keepOfShare(std::string_view shareId, std::string_view reason) const {
    int failure = 0;
    for (const auto& [file, path] : ofShare(shareId)) {
        const int error = store_.keptFiles().keepBeforeRemoval(file, path, reason);
        // Sent, deleted or exchanged meanwhile: the next look finds what there is.
        if (error != 0 && error != ENOENT) failure = error;
    }
    return failure;
}

}  // namespace tarnwell
