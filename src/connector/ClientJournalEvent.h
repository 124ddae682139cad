#pragma once

#include <boost/describe.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "store/TWVirtualFile.h"
#include "util/Date.h"

namespace tarnwell {

/// A change as the client API describes it; built, and not sent by the replay.
struct ClientJournalEvent {
    std::string TransmitId, UserOrigin;
    std::int32_t clientJournalEventType = 0;
    std::optional<std::string> VShare;
    std::string ShareId;
    std::int32_t ShareTick = 0;
    std::int32_t TransmitCounter = 0;
    Date TransmitTimeout{};
    std::int32_t CreateTick = 0;
    TWVirtualFilePtr twVirtualFile;
};
BOOST_DESCRIBE_STRUCT(ClientJournalEvent, (),
                      (TransmitId, UserOrigin, clientJournalEventType, VShare, ShareId, ShareTick,
                       TransmitCounter, TransmitTimeout, CreateTick, twVirtualFile))

}  // namespace tarnwell
