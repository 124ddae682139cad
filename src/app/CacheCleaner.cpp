#include "app/CacheCleaner.h"

#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "store/CacheLayout.h"
#include "store/ChangeLog.h"
#include "store/KeptFiles.h"
#include "store/StoreFiles.h"
#include "store/StorePersistence.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace fs = std::filesystem;

namespace {

void recreate(const std::string& folder) {
    std::error_code error;
    fs::remove_all(folder, error);
    if (error) TWLog(kLogMain, "Warning! Cannot empty folder %@ : error %@", folder, error.message());
    fs::create_directories(folder, error);
    if (error) TWLog(kLogMain, "Warning! Cannot create folder %@ : error %@", folder, error.message());
    fs::permissions(folder, fs::perms::owner_all, error);
}

void removeMetadataFiles(const std::string& folder) {
    for (const auto& name : storeFileNames(folder, true)) {
        std::error_code failure;
        fs::remove(folder + "/" + name, failure);
        if (failure) {
            TWLog(kLogMain, "Warning! Cannot remove metadata file %@ : error %@", name, failure.message());
        }
    }
}

}  // namespace

CacheCleaner::CacheCleaner(TWMetadataStorage& store, Executor& background, Executor& mainLoop, bool keepLogs)
    : store_(store), background_(background), mainLoop_(mainLoop), keepLogs_(keepLogs) {}

void CacheCleaner::clearFiles(const CacheLayout& layout, bool keepLogs) {
    for (const auto& folder :
         {layout.filesCachePath(), layout.downloadsCachePath(), layout.uploadsCachePath()}) {
        recreate(folder);
    }
    if (!keepLogs) recreate(layout.logsPath());
    removeMetadataFiles(layout.rootCachePath());
    ChangeLog::removeFrom(layout.rootCachePath());
}

void CacheCleaner::clearCaches() {
    store_.persistence().clear();

    ++running_;
    // Shared: a task that is dropped unrun lets the program end all the same.
    auto block = std::make_shared<ShutdownBlock>(store_);
    background_.async([this, block = std::move(block), &layout = store_.layout(), keepLogs = keepLogs_,
                       &mainLoop = mainLoop_]() mutable {
        TWClose();
        clearFiles(layout, keepLogs);
        TWOpenLogs();
        mainLoop.async([this, block = std::move(block)] {
            if (--running_ > 0) return;
            for (const auto& task : std::exchange(waiting_, {}))
                task();
        });
    });
}

void CacheCleaner::removeKeptFiles() {
    auto block = std::make_shared<ShutdownBlock>(store_);
    background_.async([block = std::move(block), folder = KeptFiles::folderIn(store_.layout())] {
        std::error_code error;
        fs::remove_all(folder, error);
        if (error) TWLog(kLogMain, "Warning! Cannot empty folder %@ : error %@", folder, error.message());
    });
}

void CacheCleaner::whenClean(std::function<void()> task) {
    if (running_ == 0) return task();
    waiting_.push_back(std::move(task));
}

}  // namespace tarnwell
