#include <algorithm>
#include <limits>

#include "connector/ClientApiRecords.h"
#include "service/Endpoints.h"
#include "service/FileApi.h"
#include "service/Names.h"
#include "service/Secrets.h"
#include "service/ServiceError.h"
#include "service/ShareEvents.h"
#include "store/Enums.h"
#include "util/RecordMapping.h"

namespace tarnwell::service {

namespace {

/// A log-in link lives no longer and works no oftener, whatever is asked for.
constexpr std::int64_t kLoginMinutes = 1;
constexpr std::int64_t kLoginUses = 1;

template <Record T>
std::shared_ptr<T> parsed(std::string_view text, const char* what) {
    std::string error;
    auto record = parseRecord<T>(text, error);
    if (!record) throw HttpError(400, std::string(what) + " is malformed: " + error);
    return record;
}

/// The request record, from a header that some methods send percent-encoded and others as it stands.
template <Record T>
std::shared_ptr<T> requestRecord(const Request& request) {
    const std::string& text = request.needHeader("request");
    return text.starts_with('{') ? parsed<T>(text, "the header \"request\"")
                                 : parsed<T>(request.needDecodedHeader("request"), "the header \"request\"");
}

std::string messageFor(ResponseCode code) {
    switch (code) {
        case kAccepted:
        case kDuplicate:
            return "101:Ok";
        case kConflict:
            return "102:The item cannot be moved there";
        case kDeleteIgnored:
            return "109:The item is deleted already, or was changed meanwhile";
        case kUnknownItem:
            break;
    }
    return "110:There is no such item";
}

class ClientApi {
  public:
    explicit ClientApi(MetadataStore& store) : store_(store) {}

    [[nodiscard]] Reply handle(const Request& request) const {
        const auto command = parsed<RequestCommand>(request.needHeader("command"), "the header \"command\"");
        if (command->Method == "CreateDirectLink") return createLink(request, *command);
        TWVirtualFile record;
        record.Tick = record.UpdateTick = std::numeric_limits<std::int32_t>::max();
        if (command->Method == "CreateFolder") {
            const auto asked = requestRecord<CreateFolderRequest>(request);
            record.InternalName = newInternalName();
            record.ParrentId = asked->Parent;
            record.PublicName = asked->FolderName;
            record.CreationTime = record.LastAccessTime = record.LastWriteTime = now();
            record.Attributes = kAttributesFolder;
            return perform<CreateFolderResponse>(request, *command, asked->ShareId, placeFolder, record,
                                                 &CreateFolderResponse::responce);
        }
        if (command->Method == "Delete") {
            const auto asked = requestRecord<DeleteRequest>(request);
            record.InternalName = asked->TwVirtualFileId;
            if (asked->Tick) record.Tick = record.UpdateTick = *asked->Tick;
            return perform<DeleteResponse>(request, *command, asked->ShareId, removeAsAsked, record,
                                           &DeleteResponse::responce);
        }
        if (command->Method == "Rename") {
            const auto asked = requestRecord<RenameRequest>(request);
            record.InternalName = asked->TwVirtualFileId;
            record.PublicName = asked->Rename;
            return perform<RenameResponse>(request, *command, asked->ShareId, moveAsAsked, record,
                                           &RenameResponse::responce);
        }
        if (command->Method == "Move") {
            const auto asked = requestRecord<MoveRequest>(request);
            record.InternalName = asked->TwVirtualFileId;
            record.ParrentId = asked->NewParentId;
            return perform<MoveResponse>(request, *command, asked->ShareId, moveAsAsked, record,
                                         &MoveResponse::response);
        }
        throw HttpError(400, "unknown method");
    }

  private:
    static Date now() { return std::chrono::floor<TickDuration>(std::chrono::system_clock::now()); }

    using Work = EventResult (*)(ShareChange&, const Author&, const TWVirtualFile&);
    template <class Response>
    [[nodiscard]] Reply perform(const Request& request, const RequestCommand& command,
                                const std::string& shareId, Work work, const TWVirtualFile& record,
                                TWVirtualFilePtr Response::*payload) const {
        const AccessRight right = needWriteRight(store_, request, command.Token);
        if (right.shareId != shareId) throw HttpError(403, "the token is not for this share");
        EventResult result;
        store_.change(shareId, [&](ShareChange& change) {
            result = work(change, {right.deviceId, right.email}, record);
        });
        Response reply;
        reply.ResponceMessage = messageFor(result.code);
        reply.*payload = std::move(result.item);
        return Reply::json(toJsonText(reply));
    }

    [[nodiscard]] Reply createLink(const Request& request, const RequestCommand& command) const {
        const auto asked = requestRecord<CreateDirectLinkRequest>(request);
        if (asked->MinutesExpire < 1 || asked->MaxUse < 1)
            throw HttpError(400, "\"MinutesExpire\" and \"MaxUse\" are at least 1");
        LinkInfo link;
        link.kind = asked->LinkType;
        link.domainId = request.domain->id;
        link.created = now();
        std::int64_t minutes = asked->MinutesExpire;
        std::int64_t uses = asked->MaxUse;
        // Of the data sent along only what the link shows is kept: there are a password and tokens in it.
        if (link.kind == kLinkWebClient) {
            const auto device = store_.deviceOfToken(command.UserId, request.domain->id, command.Token);
            if (!device) throw HttpError(403, "the token is not valid");
            link.userId = device->userId;
            link.deviceId = device->id;
            link.parameter = parsed<ShareAShareToken>(asked->JsonData, "\"JsonData\"")->C;
            minutes = std::min(minutes, kLoginMinutes);
            uses = std::min(uses, kLoginUses);
        } else if (link.kind == kLinkFile || link.kind == kLinkFolder) {
            const AccessRight right = needRight(store_, command.Token);
            const auto share = store_.shareWithId(right.shareId);
            const auto target = parsed<ShareFileToken2>(asked->JsonData, "\"JsonData\"");
            if (!share || share->domainId != request.domain->id || target->B != right.shareId)
                throw HttpError(403, "the token is not for this share");
            bool found = link.kind == kLinkFolder && target->A == right.shareId;
            store_.view(right.shareId, [&](ShareView& view) {
                const auto item = view.find(target->A);
                found = found || (item && !item->Deleted && item->IsFile == (link.kind == kLinkFile));
            });
            if (!found) return answer(messageFor(kUnknownItem), {});
            link.userId = right.userId;
            link.shareId = right.shareId;
            link.item = target->A;
        } else {
            throw HttpError(400, "unknown link type");
        }
        if (minutes < kLinkUnlimited) link.expires = link.created + std::chrono::minutes(minutes);
        if (uses < kLinkUnlimited) link.maxUses = uses;
        const std::string id = randomToken();
        link.digest = digestOf(id);
        store_.addLink(link);
        return answer(messageFor(kAccepted), id);
    }

    static Reply answer(std::string message, const std::string& id) {
        CreateDirectLinkResponce reply;
        reply.ResponceMessage = std::move(message);
        if (!id.empty()) reply.LinkId = id;
        return Reply::json(toJsonText(reply));
    }

    MetadataStore& store_;
};

}  // namespace

std::vector<Endpoint> clientApiEndpoints(MetadataStore& store) {
    const auto api = std::make_shared<const ClientApi>(store);
    return {{HostRole::gateway,
             "/clientapi.aspx",
             "POST",
             16 * 1024,
             [api](const Request& request) { return api->handle(request); },
             {},
             Lane::writing}};
}

}  // namespace tarnwell::service
