#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "disk/FileContents.h"

namespace tarnwell::testing {

/// A file system in memory that knows what was synced, and writes out the states that a power cut may leave.
///
/// Names, attributes and truncations are operations of one metadata journal, in the order in which they were
/// made. What a sync makes durable beside the file's own bytes, and what a cut keeps of the rest:
///
/// | | kOrdered | kHostile |
/// |---|---|---|
/// | fsync of a file | the journal up to the last operation on this file, all of it when the file grew | its
/// attributes | | fdatasync of a file | the same without changes of attributes and names | nothing | | fsync
/// of a folder | the journal up to the last operation in this folder | the operations in it | | cut | a
/// prefix of the journal; nothing of a file's growth after its end | any operations, each with those that it
/// builds on |
///
/// kOrdered is what journalling file systems keep, without their courtesies: a new file that replaces another
/// may be empty after the cut although the replacement was kept. kHostile is what the standard leaves open.
///
/// Not thread-safe. Operations return 0 or an errno; numbers of files are never used twice.
class ForgetfulDisk {
  public:
    using Id = std::uint64_t;
    static constexpr Id kRoot = 1;
    enum class Mode { kOrdered, kHostile };

    struct Attributes {
        mode_t mode = 0;  ///< with the kind
        timespec modified{}, accessed{};
        std::map<std::string, std::string> extended;
    };
    struct File {
        Attributes attributes, durableAttributes;
        FileContents contents;
        std::map<std::string, Id> entries, durableEntries;  ///< of a folder
        std::string target;                                 ///< of a symbolic link
        timespec changed{};
        unsigned links = 0;
        Id parent = 0;  ///< of a folder
        std::uint64_t references = 0;
        bool isGone = false;  ///< neither named nor open
    };
    struct Space {
        std::int64_t used = 0, total = 0;  ///< bytes
    };

    explicit ForgetfulDisk(Mode mode);

    /// Null: there is none.
    [[nodiscard]] File* file(Id id);
    [[nodiscard]] Id lookUp(Id folder, std::string_view name);
    /// The id, or 0 and `error`. `number`: the id to give, 0 for the next.
    Id create(Id folder, std::string_view name, mode_t mode, int& error, std::string target = {},
              Id number = 0);
    int link(Id id, Id folder, std::string_view name);
    int remove(Id folder, std::string_view name, bool isFolder);
    int rename(Id from, std::string_view name, Id to, std::string_view newName, unsigned flags);
    int write(Id id, std::int64_t offset, std::string_view bytes);
    int truncate(Id id, std::int64_t size);
    int allocate(Id id, int mode, std::int64_t offset, std::int64_t count);
    /// Notes that the attributes of the file were changed.
    void attributesChanged(Id id);

    void sync(Id id, bool dataOnly);
    void failSync(Id id);
    /// References of the kernel and of open handles keep a file without a name.
    void refer(Id id) { ++files_.at(id).references; }
    void release(Id id, std::uint64_t count);

    /// Leaves this many bytes free; none: no limit.
    void limitFreeSpace(std::optional<std::int64_t> bytes);
    [[nodiscard]] Space space() const;

    /// Takes the files of FOLDER/state over, as durable, with the numbers that FOLDER/files gives them.
    void takeOver(const std::string& folder);
    /// Writes one state that a power cut at this moment may leave into a new real folder: the files as
    /// FOLDER/state, their numbers as FOLDER/files, by which a disk that takes them over knows second names
    /// and keeps inode numbers. The same seed and history give the same state.
    void writeCut(std::uint64_t seed, const std::string& folder) const;
    /// Writes what programs see now: nothing is lost when they are killed.
    void writeNow(const std::string& folder) const;

    [[nodiscard]] std::size_t pendingOperations() const { return journal_.size(); }
    [[nodiscard]] std::string pathOf(Id id) const;

  private:
    /// One operation of the metadata journal; all of it is kept, or nothing.
    struct Operation {
        struct Entry {
            Id folder = 0;
            std::string name;
            Id id = 0;  ///< 0: removed
        };
        std::vector<Entry> entries{};
        Id created = 0;
        Id removedFolder = 0;
        Id file = 0;  ///< of attributes or truncation
        std::optional<Attributes> attributes{};
        std::uint64_t truncation = 0;
    };

    void note(Operation operation);
    void commit(const Operation& operation);
    void commitFirst(std::size_t count);
    /// Commits operations for which `wanted` is true, and those that they build on.
    void commitSome(const std::function<bool(const Operation&)>& wanted);
    [[nodiscard]] static bool names(const Operation& operation, Id id);
    [[nodiscard]] static bool buildsOn(const Operation& later, const Operation& earlier);
    [[nodiscard]] bool hasSpace(std::int64_t pages) const;
    void addPages(std::int64_t before, const File& file) { usedPages_ += file.contents.pages() - before; }
    /// Ends a name of the file.
    void unlinked(Id id);
    void checkGone(Id id);
    /// Forgets files that neither programs nor the disk can name any more.
    void sweep();
    void takeOverFolder(Id folder, const std::string& path, const std::map<std::string, Id>& numbers,
                        std::map<Id, Id>& taken);
    void writeState(const std::string& folder, bool durable) const;
    void writeFolder(Id folder, const std::string& top, const std::string& path, bool durable,
                     std::ostream& numbers) const;

    Mode mode_;
    std::map<Id, File> files_;
    Id last_ = kRoot;
    std::deque<Operation> journal_;
    std::uint64_t noted_ = 0;  ///< operations so far, durable or not
    std::int64_t usedPages_ = 0;
    std::optional<std::int64_t> mostPages_;
    int removals_ = 0;  ///< since the last sweep
};

}  // namespace tarnwell::testing
