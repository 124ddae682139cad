#pragma once

#include <boost/describe.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "store/TWVirtualFile.h"

/// The records of the file API, by which changes go to the service. Keys are the service's.
namespace tarnwell {

/// One change: announces contents, or is the whole of a change without any.
struct TWFileJournalEvent {
    std::string TransmitId;  ///< new for each request
    std::string UserOrigin;
    std::int32_t ClientJournalEventType = 0;  ///< a value of the enum LocalJournalType
    std::int64_t TransmitDate = 0;            ///< in ticks
    TWVirtualFilePtr TwVirtualFile;
    std::string ShareToken;  ///< the share's ACL token, value-encoded; a secret
    std::string DeviceId;
};
BOOST_DESCRIBE_STRUCT(TWFileJournalEvent, (),
                      (TransmitId, UserOrigin, ClientJournalEventType, TransmitDate, TwVirtualFile,
                       ShareToken, DeviceId))

/// Answer to an event. `ResponseCode`: 1 accepted, 2 conflict, 3 done under another name, 9 deletion ignored,
/// 10 unknown item.
struct TWFileJournalResponse {
    std::optional<std::string> TransmitId;
    std::optional<std::string> TransmitToken;  ///< for the chunks that follow
    std::int32_t ResponseCode = 0;
    std::optional<std::int64_t> FilePosition;
    std::optional<std::string> UploadUrl;
    TWVirtualFilePtr TwVirtualFile;  ///< the item as the service has it
    std::optional<TWFileJournalEvent> FileJournalEvent;
    std::optional<std::string> ShareToken;
};
BOOST_DESCRIBE_STRUCT(TWFileJournalResponse, (),
                      (TransmitId, TransmitToken, ResponseCode, FilePosition, UploadUrl, TwVirtualFile,
                       FileJournalEvent, ShareToken))

/// Answer to a chunk. `ResponseCode`: 0 stored, 1 refused, 2 the file is complete, 3 the whole is damaged.
struct TWFileChunkUploadResponse {
    std::optional<std::int64_t> Position;
    std::int32_t ResponseCode = 0;
    std::optional<TWFileJournalEvent> FileJournalEvent;
};
BOOST_DESCRIBE_STRUCT(TWFileChunkUploadResponse, (), (Position, ResponseCode, FileJournalEvent))

}  // namespace tarnwell
