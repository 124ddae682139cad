#include "app/OverlayIcons.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

constexpr std::chrono::milliseconds kPause{100};
/// A transfer is told of a moment before its queue forgets it, and one that is taken back not at all.
constexpr std::chrono::milliseconds kRecheck{500};
/// A round takes the main thread for a tenth of its time at most.
constexpr int kRestOfRound = 10;
/// However many are due, and however long each question takes.
constexpr std::chrono::milliseconds kLongestRound{20};
/// Told and not looked at. More at once are caught up with a look at everything that is shown.
constexpr std::size_t kMostTold = 20'000;

}  // namespace

OverlayIcons::OverlayIcons(const TWMetadataStorage& store, RunLoop& mainLoop, Mediator& mediator)
    : store_(store),
      mainLoop_(mainLoop),
      mediator_(mediator),
      pause_(kPause),
      told_(std::make_shared<Told>()) {
    told_->icons = this;
}

OverlayIcons::~OverlayIcons() {
    told_->icons = nullptr;
}

void OverlayIcons::unobserve(const std::string& path) {
    browsedFolders_.erase(path);
    const auto first = displayBadgePaths_.lower_bound(path + "/");
    auto last = first;
    while (last != displayBadgePaths_.end() && last->first.starts_with(path + "/"))
        ++last;
    displayBadgePaths_.erase(first, last);
    anyShown_ = !displayBadgePaths_.empty();
}

void OverlayIcons::badge(const std::string& path) {
    displayBadgePaths_.try_emplace(path);
    anyShown_ = true;
    updateOverlayIcon(path);
}

void OverlayIcons::clear() {
    browsedFolders_.clear();
    displayBadgePaths_.clear();
    due_.clear();
    inTransfer_.clear();
    anyShown_ = false;
}

int OverlayIcons::getFileStatusValue(std::string_view path) const {
    const auto lock = store_.beginReadJournal();
    std::string relative;
    if (!store_.layout().fullPathToRelative(path, relative) || relative.size() < 2) {
        TWLog(kLogDebug, "returning no icon for path %@", path);
        return kNone;
    }
    const auto file = store_.fileWithPath(relative);
    if (!file || !file->IsFile) {
        const bool kept = mediator_.pathIsSynchronized(relative) != 0;
        const bool inTransfer = mediator_.pathHasUploads(relative) || mediator_.pathHasDownloads(relative);
        if (kept) return inTransfer ? kKeptLocallyInTransfer : kKeptLocally;
        return inTransfer ? kInTransfer : kNone;
    }
    if (mediator_.isFileInUploadQueue(*file)) return kInTransfer;
    if (file->size() == 0 || mediator_.isFileDownloaded(*file)) return kLocal;
    return mediator_.isFileInDownloadQueue(*file) ? kInTransfer : kOnServer;
}

void OverlayIcons::updateOverlayIcon(const std::string& path) {
    const int status = getFileStatusValue(path);
    if (const auto shown = displayBadgePaths_.find(path); shown != displayBadgePaths_.end()) {
        shown->second = status;
        if (status == kInTransfer || status == kKeptLocallyInTransfer) {
            inTransfer_.insert(path);
            armRecheck();
        } else {
            inTransfer_.erase(path);
        }
    }
    mediator_.sendFinderCommand(format("overlay(%d)", status), path);
}

void OverlayIcons::addWithParents(const std::string& path, std::set<std::string>& paths) const {
    const auto& mountPath = store_.layout().mountPath();
    for (std::string_view at = path; at.size() > mountPath.size(); at = deletingLastPathComponent(at))
        paths.emplace(at);
}

void OverlayIcons::refreshFileInFinder(const TWVirtualFilePtr& file) {
    const std::string path = store_.layout().mountPath() + store_.fuseFilePath(*file);
    if (!displayBadgePaths_.contains(path)) return;
    std::set<std::string> paths;
    addWithParents(path, paths);
    std::for_each(paths.rbegin(), paths.rend(), [this](const auto& each) { updateOverlayIcon(each); });
}

void OverlayIcons::addShown(const std::string& from, const std::string& to, bool childrenOnly) {
    for (auto it = displayBadgePaths_.lower_bound(from); it != displayBadgePaths_.end() && it->first < to;
         ++it) {
        if (!childrenOnly || it->first.find('/', from.size()) == std::string::npos) due_.insert(it->first);
    }
}

void OverlayIcons::refreshTree(const std::string& path) {
    if (displayBadgePaths_.contains(path)) due_.insert(path);
    addShown(path + "/", path + "0", false);  // "0" follows "/"
    armRound();
}

void OverlayIcons::refreshFolders(const std::vector<std::string>& folderIds) {
    if (!anyShown_) return;
    for (const auto& id : folderIds) {
        const std::string path = store_.pathForItemWithId(id);
        if (path.empty()) continue;
        const std::string folder = store_.layout().mountPath() + path;
        addShown(folder + "/", folder + "0", true);
    }
    armRound();
}

void OverlayIcons::itemChanged(std::string_view internalName) {
    if (!anyShown_) return;
    std::unique_lock lock(told_->mutex);
    if (told_->ids.size() < kMostTold) told_->ids.emplace(internalName);
    schedule(std::move(lock));
}

void OverlayIcons::pathChanged(const std::string& path) {
    if (!anyShown_) return;
    std::unique_lock lock(told_->mutex);
    if (told_->paths.size() < kMostTold) told_->paths.insert(path);
    schedule(std::move(lock));
}

void OverlayIcons::schedule(std::unique_lock<std::mutex> lock) {
    if (std::exchange(told_->scheduled, true)) return;
    lock.unlock();
    mainLoop_.async([weak = std::weak_ptr(told_)] {
        const auto told = weak.lock();
        if (told && told->icons) told->icons->armRound();
    });
}

void OverlayIcons::armRound() {
    if (timer_) return;
    timer_ = mainLoop_.postAfter(pause_, [this] {
        timer_ = Timer();
        round();
    });
}

void OverlayIcons::armRecheck() {
    if (recheck_ || inTransfer_.empty()) return;
    recheck_ = mainLoop_.postAfter(kRecheck, [this] {
        recheck_ = Timer();
        for (auto it = inTransfer_.begin(); it != inTransfer_.end();) {
            const bool shown = displayBadgePaths_.contains(*it);
            if (shown) due_.insert(*it);
            it = shown ? std::next(it) : inTransfer_.erase(it);
        }
        if (!due_.empty()) armRound();
        armRecheck();
    });
}

void OverlayIcons::round() {
    const auto begin = std::chrono::steady_clock::now();
    std::set<std::string> ids, paths;
    {
        std::lock_guard lock(told_->mutex);
        ids.swap(told_->ids);
        paths.swap(told_->paths);
        told_->scheduled = false;
    }
    if (ids.size() >= kMostTold || paths.size() >= kMostTold) {
        for (const auto& [path, sent] : displayBadgePaths_)
            due_.insert(path);
    }
    for (const auto& id : ids) {
        if (const auto file = store_.fileWithId(id))
            paths.insert(store_.layout().mountPath() + store_.fuseFilePath(*file));
    }
    for (const auto& path : paths) {
        std::set<std::string> withParents;
        addWithParents(path, withParents);
        // The folders above a file that is not shown itself may be: in a window further up.
        const bool shown = displayBadgePaths_.contains(path);
        for (const auto& each : withParents) {
            if (shown || displayBadgePaths_.contains(each)) due_.insert(each);
        }
    }
    while (!due_.empty() && std::chrono::steady_clock::now() - begin < kLongestRound) {
        const std::string path = std::move(due_.extract(due_.begin()).value());
        const auto shown = displayBadgePaths_.find(path);
        if (shown == displayBadgePaths_.end() || shown->second != getFileStatusValue(path))
            updateOverlayIcon(path);
    }
    const auto took = std::chrono::steady_clock::now() - begin;
    pause_ = std::max(kPause, std::chrono::duration_cast<std::chrono::milliseconds>(took * kRestOfRound));
    if (!due_.empty()) armRound();
}

void OverlayIcons::forgetSent() {
    for (auto& [path, sent] : displayBadgePaths_)
        sent.reset();
}

std::set<std::string> OverlayIcons::displayBadgePaths() const {
    std::set<std::string> paths;
    for (const auto& [path, sent] : displayBadgePaths_)
        paths.insert(path);
    return paths;
}

}  // namespace tarnwell
