#include "connector/DownloadExpiry.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "connector/ConnectorSession.h"
#include "connector/DownloadFiles.h"
#include "platform/Clock.h"
#include "platform/UserDefaults.h"
#include "store/ContentVersion.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

constexpr int kDefaultDays = 60;
constexpr int kLeastHours = 4;
constexpr int kMostDays = 36500;
/// Names in the downloads folder that are no version's partial file.
constexpr std::string_view kTemporaryPrefixes[] = {"whole-", "expired-"};

}  // namespace

DownloadExpiry::DownloadExpiry(const ConnectorEnvironment& environment, ConnectorSession& session)
    : environment_(environment), session_(session) {}

void DownloadExpiry::checkDownloadsToDelete(int hours) {
    if (hours == -1) {
        const int days = environment_.userDefaults.getInt(session_.settingsKey("storeFiles"), kDefaultDays);
        if (days < 0 || days > kMostDays) return;
        hours = days == 0 ? kLeastHours : days * 24;
    }
    auto& store = environment_.store;
    const Date cutoff = environment_.clock.now() - std::chrono::hours(hours);
    std::vector<TWVirtualFilePtr> candidates;
    {
        const auto lock = store.beginReadStorage();
        for (const auto& file : store.allFiles()) {
            if (file->IsFile && file->DownloadDate && *file->DownloadDate < cutoff)
                candidates.push_back(file);
        }
    }
    bool changed = false;
    for (const auto& file : candidates) {
        if (store.terminating()) break;
        std::string dropped;
        {
            // One file at a time: the drive waits for no more than that. The record is looked at again under
            // the lock that a local change of it would take.
            const auto change = store.beginLocalChange();
            if (store.fileWithId(file->InternalName.view()) != file) continue;
            if (!file->DownloadDate || *file->DownloadDate >= cutoff || file->LocallyUpdated.value_or(false))
                continue;
            if (takesNoPart(*file) || !downloadSource(store, file) || store.isFileSynchronized(file))
                continue;
            if (auto* replay = replay_.load(); replay && replay->refersTo(file->InternalName.view()))
                continue;
            // A program that is reading it goes on doing so.
            if (store.isOpen(file->InternalName.view())) continue;
            const std::string cached = store.layout().cachePathForFile(*file);
            const auto version = ContentVersion::of(cached);
            if (version && version->isOwn()) continue;
            dropped = appendPathComponent(store.layout().downloadsCachePath(), "expired-" + generateGUID());
            if (::access(cached.c_str(), F_OK) != 0) continue;
            TWLog(kLogMain, "File download %@ appears to be expired - deleting.", file->FullPath.view());
            // Out of the way at once; freeing the space of a large file takes its time.
            if (::rename(cached.c_str(), dropped.c_str()) != 0) continue;
            file->DownloadDate.reset();
            store.markChanged(*file);
            changed = true;
        }
        ::unlink(dropped.c_str());
    }
    if (changed) store.saveDelayed();
}

void DownloadExpiry::removeLeftovers() const {
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator(environment_.store.layout().downloadsCachePath(), error)) {
        const std::string name = entry.path().filename().string();
        for (const auto prefix : kTemporaryPrefixes) {
            if (name.starts_with(prefix)) ::unlink(entry.path().c_str());
        }
    }
}

}  // namespace tarnwell
