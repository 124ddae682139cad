#pragma once

#include <boost/describe.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store/TWVirtualFile.h"
#include "util/Date.h"
#include "util/SharedString.h"

namespace tarnwell {

/// One local change that the service does not know yet. Field names are the JSON keys of the journal's file.
///
/// An entry in the journal is guarded by the store's lock. What decides where it stands there (`File`, the
/// paths, `LocalJournalType`) is changed by the journal only; the replay writes `JournalCreate` and the
/// fields of the upload in progress.
struct LocalJournal {
    std::int32_t LocalJournalType = 0;  ///< a value of the enum LocalJournalType
    std::optional<Date> JournalCreate;  ///< not sent before
    SharedString OriginalPath;          ///< drive path before a move
    SharedString OriginalParent;        ///< parent id before a move, when it changed
    SharedString CurrentPath;           ///< drive path at the time of the change
    bool Transmitting = false;          ///< being sent; set by LocalChangeJournal::setTransmitting()
    std::optional<bool> CopyingFile;    ///< the upload copy is being made; not to be sent before it is there
    /// The record as the change left it. Its `UploadName` names the upload copy of a Create or Update; other
    /// entries merely carry it.
    ///
    /// Its base is what the user had before him: `LastUploadName` names the contents that the change replaces
    /// or deletes, the ticks are the record's of then. By it the service tells a conflict, so it never
    /// changes while the entry waits, whatever comes from other devices.
    TWVirtualFilePtr File;
    SharedString TransmitToken;  ///< of the upload transaction in progress
    std::optional<std::int64_t> UploadedSize;
    SharedString FileHash;  ///< of the whole upload copy
    /// The newest tick at which the service had something else of the item, which was put off for this entry.
    std::optional<std::int32_t> ForeignTick;

    /// What only the running journal knows of an entry; never saved, never copied.
    struct QueueState {
        std::uint64_t order = 0;  ///< place in the journal; kept when the entry leaves it
        bool queued = false;      ///< was in the journal once
        bool attempted = false;   ///< was sent, with unknown result
        bool placeTaken = false;  ///< a later entry goes where this one's item was
        /// Places where the service may have a deleted item, beside those of the entry.
        std::vector<std::string> formerPlaces;
        // Keys under which the journal finds the entry.
        std::string id, share, parent, upload;
        std::vector<std::string> left;
        std::int64_t bytes = 0;  ///< counted as to be sent

        QueueState() = default;
        QueueState(const QueueState&) {}
        QueueState& operator=(const QueueState&) { return *this; }
    } queue;
};

BOOST_DESCRIBE_STRUCT(LocalJournal, (),
                      (LocalJournalType, JournalCreate, OriginalPath, OriginalParent, CurrentPath,
                       Transmitting, CopyingFile, File, TransmitToken, UploadedSize, FileHash, ForeignTick))

using LocalJournalPtr = std::shared_ptr<LocalJournal>;

/// "[Create]"; "[Unknown?]" for a value that is none.
std::string_view journalEventName(std::int32_t type);

}  // namespace tarnwell
