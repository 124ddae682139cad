#include "service/FileApi.h"

#include "connector/FileApiRecords.h"
#include "service/Endpoints.h"
#include "service/Names.h"
#include "service/ServiceError.h"
#include "store/Enums.h"
#include "util/RecordMapping.h"

namespace tarnwell::service {

namespace {

/// More than any file system holds: larger sizes are nonsense.
constexpr std::int64_t kLargestFile = std::int64_t{1} << 53;

std::shared_ptr<TWFileJournalEvent> eventOf(const Request& request) {
    const auto form = Parameters::parse(request.body);
    const std::string* text = form ? form->find("Request") : nullptr;
    if (!text) throw HttpError(400, "the form field \"Request\" is missing or malformed");
    std::string error;
    auto event = parseRecord<TWFileJournalEvent>(std::string_view(*text), error);
    if (!event) throw HttpError(400, "the event is malformed: " + error);
    if (!event->TwVirtualFile) throw HttpError(400, "the event is malformed: TwVirtualFile: missing");
    if (!isInternalName(event->TwVirtualFile->InternalName.view()))
        throw HttpError(400, "the event is malformed: InternalName: not an identity");
    for (const auto size : {event->TwVirtualFile->AllocationSize, event->TwVirtualFile->EndOfFile}) {
        if (size && (*size < 0 || *size > kLargestFile))
            throw HttpError(400, "the event is malformed: a size is out of range");
    }
    return event;
}

}  // namespace

AccessRight needWriteRight(MetadataStore& store, const Request& request, std::string_view token) {
    AccessRight right = needRight(store, token);
    const auto share = store.shareWithId(right.shareId);
    if (!share || share->domainId != request.domain->id) {
        throw HttpError(403, "the token is not for this domain");
    }
    if (right.readOnly) throw HttpError(403, "the user may not change this share");
    return right;
}

Reply FileApi::event(const Request& request) const {
    const auto event = eventOf(request);
    const auto token = percentDecode(event->ShareToken);
    if (!token) throw HttpError(400, "the event is malformed: ShareToken");
    const AccessRight right = needWriteRight(store_, request, *token);
    TWVirtualFile& record = *event->TwVirtualFile;
    if (!record.ShareId.empty() && record.ShareId.view() != right.shareId)
        throw HttpError(403, "the token is not for this share");

    TWFileJournalResponse reply;
    reply.TransmitId = event->TransmitId;
    EventResult result;
    const Author author{right.deviceId, right.email};
    const std::int32_t type = event->ClientJournalEventType;
    const bool contents = type == kJournalCreate || type == kJournalUpdate;
    if (contents && record.IsFile) {
        auto announced = transfers_.announce(right, type, record);
        result = std::move(announced.result);
        if (!announced.token.empty()) reply.TransmitToken = std::move(announced.token);
    } else if (contents || type == kJournalRename || type == kJournalDelete) {
        const auto perform = contents ? placeFolder : type == kJournalRename ? moveAsAsked : removeAsAsked;
        store_.change(right.shareId, [&](ShareChange& change) { result = perform(change, author, record); });
    } else {
        throw HttpError(400, "unknown event type");
    }
    reply.ResponseCode = result.code;
    if (result.item) {
        reply.UploadUrl = "https://filecache01." + request.domain->address + "/clientfileapi.ashx";
        result.item->ShareId = right.shareId;
        if (result.item->IsFile) result.item->UploadUrl = *reply.UploadUrl;
        reply.TwVirtualFile = std::move(result.item);
    }
    return Reply::json(toJsonText(reply));
}

Reply FileApi::chunk(const Request& request) const {
    Transfers::Chunk chunk;
    chunk.token = request.needHeader("token");
    chunk.position = needInteger(request.needHeader("position"), "position", 0);
    chunk.size = needInteger(request.needHeader("size"), "size", 0);
    chunk.hash = request.needHeader("hash");
    chunk.bytes = request.body;
    return Reply::json(toJsonText(transfers_.take(chunk, request.domain->id)));
}

}  // namespace tarnwell::service
