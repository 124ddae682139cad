#include "service/Importer.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "service/FileDescriptor.h"
#include "service/Names.h"
#include "service/Secrets.h"
#include "service/ServiceError.h"
#include "service/ShareTree.h"
#include "store/Enums.h"

namespace tarnwell::service {

namespace {

constexpr std::size_t kCopyBytes = 1 << 20;
/// Open folders above the present one cost a descriptor each.
constexpr int kMaxDepth = 500;
constexpr std::size_t kRoot = static_cast<std::size_t>(-1);

struct Found {
    std::size_t parent = kRoot;  ///< place of the folder in the list
    std::string path;            ///< for reports
    TWVirtualFile record;
};

Date dateOf(const struct statx_timestamp& time) {
    return Date{TickDuration{time.tv_sec * 10'000'000 + time.tv_nsec / 100}};
}

/// What statx() tells, in a record.
TWVirtualFile recordOf(const char* name, const struct statx& status) {
    TWVirtualFile record;
    record.IsFile = S_ISREG(status.stx_mode);
    record.PublicName = name;
    record.InternalName = newInternalName();
    record.LastWriteTime = dateOf(status.stx_mtime);
    record.LastAccessTime = dateOf(status.stx_atime);
    // Some file systems do not know when a file was made, or say the epoch. It was not after its first known
    // time.
    const bool known = (status.stx_mask & STATX_BTIME) != 0 && status.stx_btime.tv_sec != 0;
    record.CreationTime =
        known ? dateOf(status.stx_btime) : std::min(record.LastWriteTime, record.LastAccessTime);
    record.POSIXPermissions = static_cast<std::int32_t>(status.stx_mode & 0777);
    record.Attributes = record.IsFile ? kAttributesFile : kAttributesFolder;
    record.EndOfFile = record.AllocationSize = 0;
    return record;
}

/// The bytes of an open file under a new upload name; none, with errno set, when it cannot be read.
std::optional<ContentsInfo> storeContents(ContentStore& contents, int file, std::string& buffer,
                                          ContentWriter::Durability durability) {
    ContentsInfo stored{newUploadName(), {}, 0, {}, {}};
    const auto writer = contents.create(stored.uploadName);
    ContentHash hash;
    for (;;) {
        const ssize_t got = ::read(file, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return std::nullopt;
        if (got == 0) break;
        const std::string_view bytes(buffer.data(), static_cast<std::size_t>(got));
        hash.update(bytes);
        writer->append(bytes);
        stored.size += got;
    }
    writer->commit(durability);
    stored.hash = hash.finish();
    return stored;
}

void takeContents(TWVirtualFile& record, const ContentsInfo& stored) {
    record.UploadName = stored.uploadName;
    record.FilehHash = stored.hash;
    // What was read, whatever the file's size was said to be.
    record.EndOfFile = record.AllocationSize = stored.size;
}

/// Throws when the bytes are not in the store: a record must not lead to nothing.
void needContents(ContentStore& contents, const TWVirtualFile& record) {
    if (contents.sizeOf(record.UploadName.view()) != record.size())
        throw ServiceError("the contents of \"" + record.PublicName.str() + "\" vanished during the import");
}

class Import {
  public:
    Import(MetadataStore& metadata, ContentStore& contents,
           const std::function<void(const std::string&)>& report)
        : metadata_(metadata), contents_(contents), report_(report), buffer_(kCopyBytes, '\0') {}

    ImportCounts run(const std::string& shareId, const std::filesystem::path& source) {
        FileDescriptor folder(::open(source.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!folder) throw ServiceError("cannot open " + source.string() + ": " + std::strerror(errno));
        const auto hold = contents_.hold();
        try {
            walk(std::move(folder), source.string(), kRoot, 0);
            hold->sync();
            for (const auto& item : items_)
                if (item.record.IsFile) needContents(contents_, item.record);
            metadata_.change(shareId, [this](ShareChange& change) { insertAll(change); });
        } catch (...) {
            dropContents();
            throw;
        }
        return counts_;
    }

  private:
    void skip(const std::string& path, const std::string& why) {
        ++counts_.skipped;
        report_("skipped " + path + ": " + why);
    }

    void walk(FileDescriptor folder, const std::string& path, std::size_t parent, int depth) {
        DIR* const stream = ::fdopendir(folder.get());
        if (!stream) throw ServiceError("cannot read " + path + ": " + std::strerror(errno));
        const int descriptor = folder.release();
        std::vector<std::string> names;
        const std::unique_ptr<DIR, int (*)(DIR*)> close(stream, ::closedir);
        for (errno = 0; const dirent* entry = ::readdir(stream); errno = 0) {
            const std::string_view name = entry->d_name;
            if (name != "." && name != "..") names.emplace_back(name);
        }
        if (errno != 0) throw ServiceError("cannot read " + path + ": " + std::strerror(errno));
        // The order decides which of two clashing names is kept: the same at every run.
        std::sort(names.begin(), names.end());
        for (const auto& name : names)
            add(descriptor, name, path + "/" + name, parent, depth);
    }

    void add(int folder, const std::string& name, const std::string& path, std::size_t parent, int depth) {
        if (const auto why = whyNotItemName(name); !why.empty()) return skip(path, why);
        struct statx status {};
        if (::statx(folder, name.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &status) !=
            0) {
            return skip(path, std::strerror(errno));
        }
        if (S_ISLNK(status.stx_mode)) return skip(path, "a symbolic link");
        if (!S_ISREG(status.stx_mode) && !S_ISDIR(status.stx_mode))
            return skip(path, "neither file nor folder");
        if (depth >= kMaxDepth) return skip(path, "too many folders inside each other");
        const int flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
        FileDescriptor opened(
            ::openat(folder, name.c_str(), flags | (S_ISDIR(status.stx_mode) ? O_DIRECTORY : 0)));
        if (!opened) return skip(path, std::strerror(errno));
        Found item{parent, path, recordOf(name.c_str(), status)};
        if (item.record.IsFile && !copy(opened.get(), item)) return;
        items_.push_back(std::move(item));
        if (items_.back().record.IsFile) {
            ++counts_.files;
        } else {
            ++counts_.folders;
            walk(std::move(opened), path, items_.size() - 1, depth + 1);
        }
    }

    /// False, and reported, when the file cannot be read.
    bool copy(int file, Found& item) {
        const auto stored = storeContents(contents_, file, buffer_, ContentWriter::Durability::deferred);
        if (!stored) {
            skip(item.path, std::strerror(errno));
            return false;
        }
        takeContents(item.record, *stored);
        stored_.push_back(stored->uploadName);
        counts_.bytes += stored->size;
        return true;
    }

    void insertAll(ShareChange& change) {
        for (auto& item : items_) {
            TWVirtualFile& record = item.record;
            record.ParrentId = item.parent == kRoot ? SharedString(change.share().id)
                                                    : items_[item.parent].record.InternalName;
            const std::string name =
                availableName(change, record.ParrentId.view(), record.PublicName.view(), record.IsFile);
            if (record.PublicName != name) {
                ++counts_.renamed;
                report_("imported " + item.path + " as \"" + name + "\": the name was taken");
                record.PublicName = name;
            }
            if (record.IsFile) {
                change.addContents({record.UploadName.str(), change.share().id, record.size(),
                                    record.FilehHash.str(), record.InternalName.str()});
            }
            insertItem(change, record);
        }
    }

    void dropContents() noexcept {
        for (const auto& name : stored_) {
            try {
                contents_.remove(name);
            } catch (const std::exception& error) {
                report_(std::string("left behind: ") + error.what());
            }
        }
    }

    MetadataStore& metadata_;
    ContentStore& contents_;
    const std::function<void(const std::string&)>& report_;
    std::string buffer_;
    std::vector<Found> items_;  ///< folders before what is in them
    std::vector<std::string> stored_;
    ImportCounts counts_;
};

}  // namespace

ImportCounts importFolder(MetadataStore& metadata, ContentStore& contents, const std::string& shareId,
                          const std::filesystem::path& source,
                          const std::function<void(const std::string&)>& report) {
    return Import(metadata, contents, report).run(shareId, source);
}

void putFile(MetadataStore& metadata, ContentStore& contents, const std::string& shareId,
             const std::filesystem::path& source, const std::string& path) {
    const FileDescriptor file(::open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct statx status {};
    if (!file || ::statx(file.get(), "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &status) != 0)
        throw ServiceError("cannot open " + source.string() + ": " + std::strerror(errno));
    if (!S_ISREG(status.stx_mode)) throw ServiceError(source.string() + " is not a file");
    std::string buffer(kCopyBytes, '\0');
    const auto hold = contents.hold();
    auto stored = storeContents(contents, file.get(), buffer, ContentWriter::Durability::now);
    if (!stored) throw ServiceError("cannot read " + source.string() + ": " + std::strerror(errno));
    stored->shareId = shareId;

    const auto target = splitPath(path);
    TWVirtualFile record = recordOf(target.name.c_str(), status);
    takeContents(record, *stored);
    try {
        needContents(contents, record);
        metadata.change(shareId, [&](ShareChange& change) {
            const auto present = itemAtPath(change, path);
            stored->item = present ? present->InternalName.str() : record.InternalName.str();
            change.addContents(*stored);
            if (present) {
                updateItem(change, *present, record);
                return;
            }
            if (const auto why = whyNotItemName(target.name); !why.empty()) throw ServiceError(why);
            record.ParrentId = folderAtPath(change, target.folder);
            insertItem(change, record);
        });
    } catch (...) {
        contents.remove(stored->uploadName);
        throw;
    }
}

}  // namespace tarnwell::service
