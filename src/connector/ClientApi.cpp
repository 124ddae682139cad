#include "connector/ClientApi.h"

#include <chrono>
#include <memory>
#include <type_traits>
#include <utility>

#include "connector/ConnectorSession.h"
#include "connector/StoreQueries.h"
#include "connector/TaskGate.h"
#include "connector/Transmissions.h"
#include "platform/Clock.h"
#include "store/TWMetadataStorage.h"
#include "util/RecordMapping.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

constexpr std::chrono::seconds kEventTimeout{60};

}  // namespace

void ClientApi::createFolder(const LocalJournalPtr& entry) {
    send<CreateFolderResponse>(entry, "CreateFolder", [](const auto& file, const auto& share) {
        return toJsonText(CreateFolderRequest{.Parent = file.ParrentId.str(),
                                              .ShareId = share.shareId,
                                              .Vshare = share.vshareId,
                                              .FolderName = file.PublicName.str()});
    });
}

void ClientApi::deleteItem(const LocalJournalPtr& entry) {
    send<DeleteResponse>(entry, "Delete", [](const auto& file, const auto& share) {
        return toJsonText(DeleteRequest{.TwVirtualFileId = file.InternalName.str(),
                                        .ShareId = share.shareId,
                                        .Vshare = share.vshareId,
                                        .Tick = file.Tick});
    });
}

void ClientApi::renameItem(const LocalJournalPtr& entry) {
    send<RenameResponse>(entry, "Rename", [](const auto& file, const auto& share) {
        return toJsonText(RenameRequest{.TwVirtualFileId = file.InternalName.str(),
                                        .ShareId = share.shareId,
                                        .Vshare = share.vshareId,
                                        .Rename = file.PublicName.str()});
    });
}

void ClientApi::moveItem(const LocalJournalPtr& entry) {
    send<MoveResponse>(entry, "Move", [](const auto& file, const auto& share) {
        return toJsonText(MoveRequest{.TwVirtualFileId = file.InternalName.str(),
                                      .ShareId = share.shareId,
                                      .Vshare = share.vshareId,
                                      .NewParentId = file.ParrentId.str()});
    });
}

template <class Response>
void ClientApi::send(const LocalJournalPtr& entry, std::string method,
                     std::function<std::string(const TWVirtualFile&, const ShareAddress&)> request) {
    const auto lock = environment_.store.beginWriteStorage();
    const auto share = transmissions_.begin(entry);
    if (!share) return;
    transmissions_.guarded(entry, [&] {
        const std::string command = toJsonText(RequestCommand{.Token = share->aclToken,
                                                              .UserId = session_.username(),
                                                              .Method = method,
                                                              .DeviceId = session_.deviceId(),
                                                              .Ip = ""});
        environment_.urlLoader.sendAsynchronously(
            endpoints::clientApi(share->gateWayUrl, command, request(*entry->File, *share)),
            environment_.background, gate_.guard([this, entry, method](const UrlReply& reply) {
                transmissions_.guarded(entry, [&] { answered<Response>(entry, method, reply); });
            }));
    });
}

template <class Response>
void ClientApi::answered(const LocalJournalPtr& entry, const std::string& method, const UrlReply& reply) {
    if (!reply.succeeded() || reply.body.empty()) {
        TWLog(kLogMain, "Warning! Error during %@ API request. HTTP status code: %d. Will try later.", method,
              reply.status);
        return transmissions_.retransmitRequest(entry);
    }
    std::string error;
    const auto response = parseRecord<Response>(reply.body, error);
    if (!response) {
        TWLog(kLogMain, "Warning! Failed to parse %@ responce: %@", method, error);
        return transmissions_.retransmitRequest(entry);
    }
    if (!response->ResponceMessage.starts_with(kClientApiOk)) {
        TWLog(kLogMain, "Error in %@ request: %@", method, forLog(response->ResponceMessage));
        return transmissions_.retransmitRequest(entry);
    }
    if constexpr (std::is_same_v<Response, CreateFolderResponse>) folderCreated(entry, *response);
    transmissions_.deleteSucceededRequest(entry);
}

/// The folder takes the id that the service chose.
void ClientApi::folderCreated(const LocalJournalPtr& entry, const CreateFolderResponse& response) {
    auto& store = environment_.store;
    const std::string name = response.responce ? response.responce->InternalName.str() : "";
    if (name.empty()) {
        TWLog(kLogMain, "CreateFolder request: Warning! Empty InternalName in responce.");
        return;
    }
    const auto change = store.beginLocalChange();
    if (const auto live = store.fileWithId(entry->File->InternalName.view()))
        store.changeInternalName(name, live);
}

ClientJournalEvent ClientApi::createEventForLocalJournal(const LocalJournal& entry) const {
    const auto lock = environment_.store.beginReadStorage();
    ClientJournalEvent event;
    event.TransmitId = generateGUID();
    event.UserOrigin = session_.username();
    event.clientJournalEventType = entry.LocalJournalType;
    event.ShareId = entry.File->ShareId.str();
    if (const auto share = environment_.store.shareWithId(event.ShareId)) event.VShare = share->VshareId;
    event.ShareTick = entry.File->ShareTick;
    event.TransmitCounter = 1;
    event.TransmitTimeout = environment_.clock.now() + kEventTimeout;
    event.CreateTick = entry.File->CreateTick;
    event.twVirtualFile = std::make_shared<TWVirtualFile>(*entry.File);
    return event;
}

}  // namespace tarnwell
