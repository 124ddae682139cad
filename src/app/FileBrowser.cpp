#include "app/FileBrowser.h"

#include "connector/DownloadEngine.h"
#include "connector/Links.h"
#include "connector/Notifications.h"
#include "connector/TWConnector.h"
#include "platform/DesktopServices.h"
#include "store/LocalChangeJournal.h"
#include "store/TWMetadataStorage.h"

namespace tarnwell {

namespace {

constexpr std::chrono::seconds kGreetingDelay{1};

}  // namespace

FileBrowser::FileBrowser(const Environment& environment)
    : environment_(environment),
      link_(environment_.ports, *this),
      icons_(environment_.store, environment_.mainLoop, *this),
      commands_({environment_.store, icons_, environment_.desktop, environment_.clipboard, *this}),
      folders_(environment_.store, environment_.background, [this] { return mounted_.load(); }),
      self_(std::make_shared<FileBrowser*>(this)) {}

FileBrowser::~FileBrowser() {
    stop();
}

void FileBrowser::start() {
    icons_.clear();
    link_.setupMachPort();
    const auto follow = [this](const auto& notification) {
        if (notification.file) itemChanged(notification.file->InternalName.view());
    };
    auto& center = environment_.notifications;
    subscriptions_.push_back(center.observe<TWConnectorFileDownloadStarted>(follow));
    subscriptions_.push_back(center.observe<TWConnectorFileDownloadFinished>(follow));
    subscriptions_.push_back(center.observe<TWConnectorFileUploadStarted>(follow));
    subscriptions_.push_back(center.observe<TWConnectorFileUploadFinished>(follow));
    environment_.store.setJournalObserver(this);
    environment_.connector.status().setIcons(this);
    environment_.connector.links().setUrlOpener(&environment_.desktop);
}

void FileBrowser::stop() {
    subscriptions_.clear();
    greeting_.cancel();
    environment_.store.setJournalObserver(nullptr);
    environment_.connector.status().setIcons(nullptr);
    environment_.connector.links().setUrlOpener(nullptr);
}

void FileBrowser::driveDidMount() {
    mounted_ = true;
    greeting_ = environment_.mainLoop.postAfter(
        kGreetingDelay, [this] { sendFinderCommand("hej", environment_.store.layout().mountPath()); });
}

void FileBrowser::driveWillUnmount() {
    mounted_ = false;
    greeting_.cancel();
}

void FileBrowser::refreshFinderFolders(const std::vector<std::string>& folderIds) {
    folders_.refreshFinderFolders(folderIds);
    environment_.mainLoop.async([weak = std::weak_ptr(self_), folderIds] {
        if (const auto self = weak.lock()) (*self)->icons_.refreshFolders(folderIds);
    });
}

void FileBrowser::sendFinderCommand(std::string_view command, std::string_view path) {
    link_.sendFinderCommand(command, path);
}

bool FileBrowser::setIcon(const std::string& forPath) {
    queuesChanged_ = true;
    icons_.pathChanged(forPath);
    return true;
}

// The connector

int FileBrowser::pathIsSynchronized(std::string_view path) {
    return environment_.connector.status().pathIsSynchronized(path);
}

void FileBrowser::itemChanged(std::string_view internalName) {
    queuesChanged_ = true;
    icons_.itemChanged(internalName);
}

void FileBrowser::lookAtQueues() {
    const auto& store = environment_.store;
    auto& downloads = environment_.connector.downloads();
    const auto length = downloads.downloadQueueLen();
    if (!queuesChanged_.exchange(false) && length == downloadQueueLen_) return;
    downloadQueueLen_ = length;
    std::vector<std::string> paths;
    const auto lock = store.beginReadJournal();
    for (const auto& entry : store.journal().journalItems()) {
        const auto file = entry->File ? store.fileWithId(entry->File->InternalName.view()) : nullptr;
        if (file) paths.push_back(file->FullPath.str());
    }
    uploads_ = PendingPaths(paths);
    paths.clear();
    for (const auto& file : downloads.queuedFiles())
        paths.push_back(file->FullPath.str());
    downloads_ = PendingPaths(paths);
}

bool FileBrowser::pathHasUploads(std::string_view path) {
    lookAtQueues();
    return uploads_.anyBeginsWith(path);
}

bool FileBrowser::pathHasDownloads(std::string_view path) {
    lookAtQueues();
    return downloads_.anyBeginsWith(path);
}

void FileBrowser::refreshSyncStatus(const TWVirtualFilePtr& file) {
    environment_.connector.status().refreshSyncStatus(file);
}

void FileBrowser::refreshShareSyncStatus(const ManagedSharePtr& share) {
    environment_.connector.status().refreshShareSyncStatus(share);
}

void FileBrowser::createFilePublicLink(const TWVirtualFilePtr& file, RemoteCommands::LinkHandler handler) {
    environment_.connector.links().createFilePublicLink(file, std::move(handler));
}

void FileBrowser::openShareInWebClient(const ManagedSharePtr& share) {
    environment_.connector.links().openShareInWebClient(share);
}

bool FileBrowser::isFileDownloaded(const TWVirtualFile& file) {
    return environment_.connector.downloads().isFileDownloaded(file);
}

bool FileBrowser::isFileInUploadQueue(const TWVirtualFile& file) {
    return environment_.store.hasUnsentContents(file);
}

bool FileBrowser::isFileInDownloadQueue(const TWVirtualFile& file) {
    return environment_.connector.downloads().isFileInDownloadQueue(file);
}

void FileBrowser::downloadFile(const TWVirtualFilePtr& file) {
    environment_.connector.downloads().downloadFile(file);
    itemChanged(file->InternalName.view());
}

// A tree may be large: its files are looked at in the background. Background work ends before the connector.
void FileBrowser::downloadFolder(const TWVirtualFilePtr& folder) {
    environment_.background.async([&connector = environment_.connector, folder, weak = std::weak_ptr(self_),
                                   &loop = environment_.mainLoop] {
        connector.downloads().downloadFolder(*folder);
        loop.async([weak, folder] {
            const auto self = weak.lock();
            if (self) (*self)->icons_.refreshFolders({folder->InternalName.str()});
        });
    });
}

void FileBrowser::downloadShare(const ManagedSharePtr& share) {
    environment_.background.async(
        [&connector = environment_.connector, share] { connector.downloads().downloadShare(*share); });
}

}  // namespace tarnwell
