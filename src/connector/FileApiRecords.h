#pragma once

#include <boost/describe.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "store/TWVirtualFile.h"

/// The records of the file API: a change of one item, and the chunks of its contents.
namespace tarnwell {

/// One change that a device asks for.
struct TWFileJournalEvent {
    std::string TransmitId;  ///< of this request alone
    std::string UserOrigin;
    std::int32_t ClientJournalEventType = 0;  ///< a LocalJournalType
    std::int64_t TransmitDate = 0;            ///< ticks of 100 ns
    TWVirtualFilePtr TwVirtualFile;
    std::string ShareToken;  ///< value-encoded; a secret, never logged
    std::string DeviceId;
};
BOOST_DESCRIBE_STRUCT(TWFileJournalEvent, (),
                      (TransmitId, UserOrigin, ClientJournalEventType, TransmitDate, TwVirtualFile,
                       ShareToken, DeviceId))

/// The answer to an event. `TransmitToken` admits the chunks that follow a Create or Update.
struct TWFileJournalResponse {
    std::optional<std::string> TransmitId, TransmitToken;
    std::int32_t ResponseCode = 0;
    std::optional<std::int64_t> FilePosition;
    std::optional<std::string> UploadUrl;
    TWVirtualFilePtr TwVirtualFile;  ///< the item as the service has it now
    std::optional<TWFileJournalEvent> FileJournalEvent;
    std::optional<std::string> ShareToken;
};
BOOST_DESCRIBE_STRUCT(TWFileJournalResponse, (),
                      (TransmitId, TransmitToken, ResponseCode, FilePosition, UploadUrl, TwVirtualFile,
                       FileJournalEvent, ShareToken))

/// The answer to one chunk.
struct TWFileChunkUploadResponse {
    std::optional<std::int64_t> Position;  ///< bytes that the service has
    std::int32_t ResponseCode = 0;
    std::optional<TWFileJournalEvent> FileJournalEvent;
};
BOOST_DESCRIBE_STRUCT(TWFileChunkUploadResponse, (), (Position, ResponseCode, FileJournalEvent))

}  // namespace tarnwell
