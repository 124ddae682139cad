#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "store/TWVirtualFile.h"

/// What the pieces of the change log say (docs/formats/store.md). Plain code.
namespace tarnwell {

/// What stands in the journal's file, for the changes of entries that follow: the file has no numbers.
struct JournalBase {
    std::string hash;                   ///< see hashOfJournal()
    std::vector<std::uint64_t> orders;  ///< of its entries, ascending

    bool operator==(const JournalBase&) const = default;
};
std::string hashOfJournal(const std::vector<std::string>& texts);

/// Two files of the cache are about to trade places. Paths below the cache root; inode 0: there is no file.
struct CacheExchange {
    std::string a, b;
    std::uint64_t inodeA = 0, inodeB = 0;
};

/// Composes one piece.
class PieceWriter {
  public:
    void keys();  ///< names the keys of records; before the first record of a segment
    void journalBase(const JournalBase& base);
    void share(std::string_view json);
    void shareGone(std::string_view id);
    void file(const TWVirtualFile& file);
    void fileGone(std::string_view id);
    void entry(std::uint64_t order, std::string_view json);
    void entryGone(std::uint64_t order);
    void exchange(const CacheExchange& exchange);

    [[nodiscard]] const std::string& bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

/// Hears what pieces say, in their order.
class PieceVisitor {
  public:
    virtual ~PieceVisitor() = default;
    virtual void journalBase(JournalBase base) = 0;
    virtual void share(const std::string& json) = 0;
    virtual void shareGone(const std::string& id) = 0;
    virtual void file(TWVirtualFilePtr file) = 0;
    virtual void fileGone(const std::string& id) = 0;
    virtual void entry(std::uint64_t order, std::string json) = 0;
    virtual void entryGone(std::uint64_t order) = 0;
    virtual void exchange(CacheExchange exchange) = 0;
};

struct MalformedPiece : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class ByteReader;

/// Reads pieces. Remembers the keys that one of them named.
class PieceReader {
  public:
    /// Throws MalformedPiece; what came before is told to the visitor then.
    void read(std::string_view piece, PieceVisitor& visitor);

  private:
    TWVirtualFilePtr readFile(ByteReader& bytes) const;

    std::vector<std::size_t> keys_;  ///< by number in the log: index in TWVirtualFile::storedKeys
};

}  // namespace tarnwell
