#include "connector/FileApi.h"

#include <utility>

#include "connector/ConnectorSession.h"
#include "connector/StoreQueries.h"
#include "connector/UrlUtil.h"
#include "platform/Clock.h"
#include "store/TWMetadataStorage.h"
#include "util/RecordMapping.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

TWFileJournalEvent FileApi::createEventForJournal(const LocalJournal& entry,
                                                  const ShareAddress& inShare) const {
    TWFileJournalEvent event;
    event.TransmitId = generateGUID();
    event.UserOrigin = session_.username();
    event.TransmitDate = ticks(environment_.clock.now());
    event.ShareToken = UrlUtil::encodeValue(inShare.aclToken);
    event.DeviceId = session_.deviceId();
    const auto lock = environment_.store.beginReadStorage();
    event.ClientJournalEventType = entry.LocalJournalType;
    event.TwVirtualFile = std::make_shared<TWVirtualFile>(*entry.File);
    if (entry.FileHash) event.TwVirtualFile->FilehHash = entry.FileHash;
    return event;
}

namespace {

FileApi::ResponsePtr responseOf(const UrlReply& reply) {
    if (reply.error.empty() && reply.status != 200) {
        TWLog(kLogMain, "Warning! File API responded with invalid HTTP status code: %d", reply.status);
        return nullptr;
    }
    if (!reply.error.empty() || reply.body.empty()) {
        TWLog(kLogMain, "Warning! No responce body for the file API request. Error : %@",
              errorText(reply.error));
        return nullptr;
    }
    std::string error;
    std::shared_ptr<TWFileJournalResponse> response;
    try {
        response = parseRecord<TWFileJournalResponse>(reply.body, error);
    } catch (const std::exception& failure) {
        error = failure.what();
    }
    if (!response) {
        TWLog(kLogMain, "Warning! Cannot parse clientfileapi responce, error %@. Responce is %@.", error,
              forLog(reply.body));
    }
    return response;
}

}  // namespace

void FileApi::sendFileApiRequest(const TWFileJournalEvent& event, const ShareAddress& forShare,
                                 Executor& queue, std::function<void(ResponsePtr)> completion) const {
    environment_.urlLoader.sendAsynchronously(
        endpoints::fileApiEvent(forShare, toJsonText(event)), queue,
        [completion = std::move(completion)](const UrlReply& reply) { completion(responseOf(reply)); });
}

}  // namespace tarnwell
