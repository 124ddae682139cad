#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell::service {

/// Contents being read. Stays readable when the contents are removed meanwhile. One thread at a time.
class ContentReader {
  public:
    virtual ~ContentReader() = default;
    [[nodiscard]] virtual std::int64_t size() const = 0;
    /// Up to `count` bytes from `position`; fewer only at the end. Throws ServiceError for a failed read.
    virtual std::size_t read(std::int64_t position, char* out, std::size_t count) = 0;
};

/// Contents being written: not to be seen under their name before commit(). Without it they leave no trace.
/// One thread at a time.
class ContentWriter {
  public:
    virtual ~ContentWriter() = default;
    /// Throws ServiceError, also for a full disk; nothing but destruction is allowed then.
    virtual void append(std::string_view bytes) = 0;

    enum class Durability {
        now,      ///< on the disk when commit() returns
        deferred  ///< on the disk after the next ContentHold::sync(): for many small contents at once
    };
    /// The contents take their name, whole. Throws ServiceError when the name is taken: contents never
    /// change.
    virtual void commit(Durability durability) = 0;
};

/// Contents that arrive in pieces over several requests. What was written outlives the process; the disk is
/// waited for only in publish(). One thread at a time.
class PartialContents {
  public:
    virtual ~PartialContents() = default;
    [[nodiscard]] virtual std::int64_t size() const = 0;
    /// From `position` on these bytes, and nothing after them. REQUIRES: `position` is not beyond size().
    /// Throws ServiceError, StorageFullError for a full disk; what was there before `position` is kept.
    virtual void write(std::int64_t position, std::string_view bytes) = 0;
    /// Nothing from `position` on. REQUIRES: `position` is not beyond size().
    virtual void cut(std::int64_t position) = 0;
    /// As ContentReader::read().
    virtual std::size_t read(std::int64_t position, char* out, std::size_t count) = 0;
    /// The bytes have that name too, durably. False when other contents have it. May be repeated, also by a
    /// later process. Throws DiskFailedError when the disk did not take them; all of it is dropped then,
    /// because a second sync would claim success over bytes that are gone.
    virtual bool publish(std::string_view uploadName) = 0;
    /// Ends it; published contents stay.
    virtual void drop() = 0;
};

/// Held from before contents get their name until the commit of their record: while one lives, in any
/// process, contents without a record are not swept. One thread.
class ContentHold {
  public:
    virtual ~ContentHold() = default;
    /// Makes every deferred commit durable. Throws DiskFailedError when any write to the disk failed since
    /// the hold was taken.
    virtual void sync() = 0;
};

/// Where file contents are kept, by upload name. A name is given once and its bytes never change. It knows
/// nothing of shares and rights. Any thread.
class ContentStore {
  public:
    virtual ~ContentStore() = default;

    /// None when there are no contents of that name.
    virtual std::unique_ptr<ContentReader> open(std::string_view uploadName) = 0;
    /// Throws ServiceError for a name that isUploadName() refuses.
    virtual std::unique_ptr<ContentWriter> create(std::string_view uploadName) = 0;
    /// Opens the partial contents of that key (of the same form as a name), or begins them.
    virtual std::unique_ptr<PartialContents> partial(std::string_view key) = 0;
    /// Nothing happens when there are none.
    virtual void remove(std::string_view uploadName) = 0;
    /// Waits while a sweep runs.
    [[nodiscard]] virtual std::unique_ptr<ContentHold> hold() = 0;
    /// None when there are no contents of that name.
    [[nodiscard]] virtual std::optional<std::int64_t> sizeOf(std::string_view uploadName) = 0;
    /// Bytes that the disk has left for contents.
    [[nodiscard]] virtual std::int64_t freeBytes() = 0;
    /// Drops what cut-off writers left behind, if it has not been written to for `age`.
    virtual void dropUnfinished(std::chrono::seconds age) = 0;

    static constexpr unsigned kSlices = 256;
    /// The names in one slice of the store that were given at least `age` ago.
    virtual std::vector<std::string> namesOlderThan(std::chrono::seconds age, unsigned slice) = 0;
    /// Removes those of them that `straysOf` gives back, unless somebody holds. The number removed.
    using StraysOf = std::function<std::vector<std::string>(std::vector<std::string>)>;
    virtual int sweep(std::chrono::seconds age, unsigned slice, const StraysOf& straysOf) = 0;
    /// Takes contents out of the store without deleting them.
    virtual void setAside(std::string_view uploadName) = 0;
};

/// Whether a name that a client proposes may name contents: 1 to 200 letters, digits, "-" and "_".
bool isUploadName(std::string_view name);

}  // namespace tarnwell::service
