#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/LocalSocket.h"

/// The store's files on disk: found, read, replaced, set aside. Any thread; blocks.
namespace tarnwell {

inline constexpr std::string_view kSharesFile = "shares.db";
inline constexpr std::string_view kJournalFile = "journal.db";

/// The bytes of a regular file. 0 or errno; ENOENT when there is none.
int readStoreFile(const std::string& path, std::string& bytes);

/// The next form of a file, written beside it. Until commit() the former one stays whole, whatever happens;
/// an object that goes uncommitted takes its bytes with it.
class ReplacementFile {
  public:
    explicit ReplacementFile(std::string path);
    ReplacementFile(ReplacementFile&& other) noexcept;
    ReplacementFile& operator=(ReplacementFile&& other) noexcept;
    ~ReplacementFile();

    [[nodiscard]] const std::string& path() const { return path_; }
    /// All five: 0 or errno. The first failure is kept: later calls do nothing and return it.
    int open();
    int write(std::string_view bytes);
    /// The bytes are all there: lets the disk begin with them while the caller does other things.
    int startSync();
    /// Brings the bytes to the disk and closes the file; nothing more when that was done.
    int sync();
    /// Puts it in the place of the former one. Lasts over a power failure after syncStoreFolder().
    int commit();

  private:
    [[nodiscard]] std::string temporary() const;
    int fail(int error);

    std::string path_;
    OwnedDescriptor descriptor_;
    int error_ = 0;
    bool exists_ = false;  ///< the temporary file
};

/// Makes renames in the folder last. 0 or errno; a file system that cannot do that counts as success.
int syncStoreFolder(const std::string& folder);

/// Why a file stands aside, and how its name goes on: "journal.db" -> "journal.db.damaged-1".
enum class AsideReason { kDamaged, kUnread };
/// Moves a file out of the way for whoever may want to look into it. Keeps the first few of a file; a later
/// one takes the place of the last. Empty when that failed; else the new name.
std::string setStoreFileAside(const std::string& path, AsideReason reason);

/// As above, but the file itself stays where it is as well.
std::string keepStoreFileAside(const std::string& path, AsideReason reason);

/// Names in the folder of the saved store: what ends in ".db", and with `leftovers` also what was set aside
/// or left by a save that was cut off.
std::vector<std::string> storeFileNames(const std::string& folder, bool leftovers);
/// Removes what a save that was cut off left behind.
void removeCutOffFiles(const std::string& folder);

}  // namespace tarnwell
