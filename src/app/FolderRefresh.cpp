#include "app/FolderRefresh.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "store/TWMetadataStorage.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

constexpr const char* kMarker = ".twrefresh";
/// Folders that wait. Whoever looks at a drive on which more than these change at once looks at few of them.
constexpr std::size_t kMostWaiting = 5000;

/// False when the drive is not there any more.
bool touch(const std::string& folder) {
    const std::string marker = appendPathComponent(folder, kMarker);
    const int file = open(marker.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRWXU);
    if (file < 0) return errno != ENOTCONN;
    close(file);
    unlink(marker.c_str());
    return true;
}

}  // namespace

FolderRefresh::FolderRefresh(const TWMetadataStorage& store, Executor& background,
                             std::function<bool()> isMounted)
    : store_(store), background_(background), state_(std::make_shared<State>()) {
    state_->isMounted = std::move(isMounted);
}

FolderRefresh::~FolderRefresh() {
    std::lock_guard lock(state_->mutex);
    state_->ended = true;
    state_->folders.clear();
}

void FolderRefresh::refreshFinderFolders(const std::vector<std::string>& folderIds) {
    if (!state_->isMounted()) return;
    std::vector<std::string> paths;
    {
        const auto lock = store_.beginReadStorage();
        for (const auto& id : folderIds) {
            const std::string path = store_.pathForItemWithId(id);
            if (!path.empty()) paths.push_back(store_.layout().mountPath() + path);
        }
    }
    {
        std::lock_guard lock(state_->mutex);
        for (auto& path : paths) {
            if (state_->folders.size() >= kMostWaiting) break;
            state_->folders.insert(std::move(path));
        }
        if (state_->running || state_->folders.empty()) return;
        state_->running = true;
    }
    background_.async([state = state_] { run(state); });
}

void FolderRefresh::run(const std::shared_ptr<State>& state) {
    for (;;) {
        std::string folder;
        {
            std::lock_guard lock(state->mutex);
            if (state->ended || !state->isMounted()) state->folders.clear();
            if (state->folders.empty()) {
                state->running = false;
                return;
            }
            folder = std::move(state->folders.extract(state->folders.begin()).value());
        }
        if (touch(folder)) continue;
        std::lock_guard lock(state->mutex);
        state->folders.clear();
    }
}

}  // namespace tarnwell
