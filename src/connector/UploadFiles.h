#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "connector/FileDescriptor.h"
#include "store/LocalJournal.h"

namespace tarnwell {

class TWMetadataStorage;

/// MD5 of a file read from its beginning, in blocks of 64 KiB, as hash text. None when `stopped` said so
/// (asked every few megabytes), or the file cannot be read, with errno set.
[[nodiscard]] std::optional<std::string> hashOfOpenFile(int descriptor, const std::function<bool()>& stopped);

/// The bytes [position, position + bytes.size()), all of them, or false with errno set.
[[nodiscard]] bool readRange(int descriptor, std::int64_t position, std::string& bytes);

/// An upload copy, opened to be sent.
struct UploadSource {
    enum class State {
        kOpen,
        kNothingToSend,  ///< neither the copy nor contents of that change are here: logged
        kUnreadable,     ///< now; `error` tells why
    };
    State state = State::kUnreadable;
    int error = 0;
    bool renewed = false;  ///< the copy was gone and was made again from the cached contents
    FileDescriptor file{-1};
};

/// Opens the upload copy of an entry. A copy that is gone is made again from the cached contents, where these
/// are that version (ContentVersion). Blocks on the disk, without the store's lock. REQUIRES: the entry's
/// file has an upload name.
[[nodiscard]] UploadSource openUploadFileForReading(TWMetadataStorage& store, const LocalJournalPtr& entry,
                                                    const std::function<bool()>& stopped);

}  // namespace tarnwell
