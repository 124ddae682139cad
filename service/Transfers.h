#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "connector/FileApiRecords.h"
#include "service/ContentStore.h"
#include "service/MetadataStore.h"
#include "service/Secrets.h"
#include "service/ShareEvents.h"
#include "service/UploadSpace.h"

namespace tarnwell::service {

/// Uploads: an announced change of a file, the chunks of its contents, and their appearance in the tree.
///
/// A transfer is known by a random token. What is announced is kept in the metadata store and what came of
/// the bytes in partial contents, so both outlive the process. Contents and record appear in one transaction
/// after the last chunk, when the bytes are on the disk: before it there is nothing of them in the tree,
/// after it all. A transfer that is done is remembered for a day, so that a last chunk whose answer was lost
/// can be sent again.
///
/// Any thread; two chunks of one transfer wait for each other. Blocks on disk and database. Failures are
/// ServiceErrors; after each of them the same chunk may come again.
class Transfers {
  public:
    /// Borrows both. `spareBytes`: what uploads have to leave of the free disk.
    Transfers(
        MetadataStore& store, ContentStore& contents,
        std::function<std::int64_t()> spareBytes = [] { return std::int64_t{0}; })
        : store_(store),
          contents_(contents),
          space_([&contents, spare = std::move(spareBytes)] { return contents.freeBytes() - spare(); }) {}

    struct Announced {
        EventResult result;
        std::string token;  ///< empty when the change is refused
    };
    /// A file's Create or Update. One without bytes, or with those that are here already, is complete. Throws
    /// StorageFullError when the disk has no room for the upload beside those under way.
    Announced announce(const AccessRight& right, std::int32_t event, const TWVirtualFile& record);

    enum ChunkCode : std::int32_t { kStored = 0, kFailed = 1, kComplete = 2, kCorrupted = 3 };
    struct Chunk {
        std::string_view token;
        std::int64_t position = 0;
        std::int64_t size = 0;  ///< as announced; the bytes have to agree
        std::string_view hash;
        std::string_view bytes;
    };
    /// A chunk may be sent again, also the last one, and come late: bytes that are here already change
    /// nothing. Others that begin before the end of what is here replace all from there on. `domainId` is
    /// where the chunk came in.
    TWFileChunkUploadResponse take(const Chunk& chunk, const std::string& domainId);

  private:
    /// What is in memory of one transfer. All but `used` is guarded by its own lock.
    struct Live {
        std::mutex lock;
        TransferInfo info;
        TWVirtualFile record;
        bool ended = false;  ///< dropped: whoever still holds it has to give up
        std::int64_t received = 0;
        ContentHash hash;  ///< of the bytes before `received`
        /// The state before the last chunk, for its repetition.
        std::int64_t formerPosition = 0;
        ContentHash formerHash;
        std::list<std::string>::iterator used;  ///< guarded by Transfers::lock_
    };
    using LivePtr = std::shared_ptr<Live>;

    LivePtr find(const std::string& digest, const std::string& domainId);
    void forget(const std::string& digest);
    void drop(Live& live, PartialContents& partial);
    FilePlan plan(ShareView& view, const Author& author, bool create, const TWVirtualFile& record);
    static bool takeBytes(Live& live, PartialContents& partial, const Chunk& chunk);
    static void rewind(Live& live, PartialContents& partial, std::int64_t position);
    std::int32_t complete(Live& live, PartialContents& partial, std::string hash);

    MetadataStore& store_;
    ContentStore& contents_;
    UploadSpace space_;

    std::mutex lock_;
    std::unordered_map<std::string, LivePtr> live_;  ///< by digest; guarded by lock_
    std::list<std::string> recent_;                  ///< newest first; guarded by lock_
};

}  // namespace tarnwell::service
