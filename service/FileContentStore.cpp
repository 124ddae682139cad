#include "service/FileContentStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>

#include "service/FileDescriptor.h"
#include "service/Secrets.h"
#include "service/ServiceError.h"

namespace tarnwell::service {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const std::string& what, int error) {
    const std::string text = "contents: " + what + ": " + std::strerror(error);
    if (error == ENOSPC || error == EDQUOT || error == EFBIG) throw StorageFullError(text);
    throw ServiceError(text);
}

void syncFolder(const fs::path& path) {
    const FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || ::fsync(folder.get()) != 0) fail("cannot sync " + path.string(), errno);
}

/// Whether it was not there.
bool makeFolder(const fs::path& path) {
    if (::mkdir(path.c_str(), 0700) == 0) return true;
    if (errno != EEXIST) fail("cannot make " + path.string(), errno);
    return false;
}

std::size_t readAt(int file, std::int64_t position, char* out, std::size_t count) {
    std::size_t done = 0;
    while (done < count) {
        const ssize_t got =
            ::pread(file, out + done, count - done, position + static_cast<std::int64_t>(done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) fail("cannot read", errno);
        if (got == 0) break;
        done += static_cast<std::size_t>(got);
    }
    return done;
}

class FileReader final : public ContentReader {
  public:
    explicit FileReader(FileDescriptor file) : file_(std::move(file)) {
        struct stat status {};
        if (::fstat(file_.get(), &status) != 0) fail("cannot read", errno);
        size_ = status.st_size;
    }
    [[nodiscard]] std::int64_t size() const override { return size_; }
    std::size_t read(std::int64_t position, char* out, std::size_t count) override {
        return readAt(file_.get(), position, out, count);
    }

  private:
    FileDescriptor file_;
    std::int64_t size_ = 0;
};

constexpr std::size_t kLargePiece = 512 * 1024;

class PartialFile final : public PartialContents {
  public:
    PartialFile(fs::path path, std::function<fs::path(std::string_view)> targetOf)
        : path_(std::move(path)),
          targetOf_(std::move(targetOf)),
          file_(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
        if (!file_) fail("cannot open " + path_.string(), errno);
        size_ = status(file_.get()).st_size;
    }
    [[nodiscard]] std::int64_t size() const override { return size_; }
    void write(std::int64_t position, std::string_view bytes) override {
        if (position < size_) cut(position);
        const std::size_t count = bytes.size();
        while (!bytes.empty()) {
            const ssize_t put = ::pwrite(file_.get(), bytes.data(), bytes.size(), size_);
            if (put < 0 && errno == EINTR) continue;
            if (put < 0) {
                const int error = errno;
                cut(position);
                fail("cannot write", error);
            }
            bytes.remove_prefix(static_cast<std::size_t>(put));
            size_ += put;
        }
        // The disk begins now, or the wait in publish() would grow with the file.
        if (count >= kLargePiece) {
            ::sync_file_range(file_.get(), position, static_cast<off_t>(count), SYNC_FILE_RANGE_WRITE);
        }
    }
    void cut(std::int64_t position) override {
        if (::ftruncate(file_.get(), position) != 0) fail("cannot cut", errno);
        size_ = position;
    }
    std::size_t read(std::int64_t position, char* out, std::size_t count) override {
        return readAt(file_.get(), position, out, count);
    }
    bool publish(std::string_view uploadName) override {
        const fs::path target = targetOf_(uploadName);
        // A second name and no rename: whoever is cut off before the item is stored finds all as it was.
        if (::link(path_.c_str(), target.c_str()) != 0) {
            if (errno != EEXIST) fail("cannot store " + std::string(uploadName), errno);
            const FileDescriptor other(::open(target.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
            if (!other) fail("cannot open " + std::string(uploadName), errno);
            const struct stat theirs = status(other.get());
            const struct stat ours = status(file_.get());
            if (theirs.st_ino != ours.st_ino || theirs.st_dev != ours.st_dev) return false;
        }
        // After the link: file systems with a journal then write bytes and name in one go.
        const FileDescriptor folder(::open(target.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (::fdatasync(file_.get()) != 0 || !folder || ::fsync(folder.get()) != 0) {
            const int error = errno;
            ::unlink(target.c_str());
            drop();
            throw DiskFailedError("contents: cannot sync " + std::string(uploadName) + ": " +
                                  std::strerror(error));
        }
        return true;
    }
    void drop() override { ::unlink(path_.c_str()); }

  private:
    static struct stat status(int file) {
        struct stat status {};
        if (::fstat(file, &status) != 0) fail("cannot read", errno);
        return status;
    }

    const fs::path path_;
    const std::function<fs::path(std::string_view)> targetOf_;
    FileDescriptor file_;
    std::int64_t size_ = 0;
};

class FileWriter final : public ContentWriter {
  public:
    FileWriter(fs::path temporary, fs::path target)
        : temporary_(std::move(temporary)),
          target_(std::move(target)),
          file_(::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)) {
        if (!file_) fail("cannot create " + temporary_.string(), errno);
    }
    ~FileWriter() override {
        if (!committed_) ::unlink(temporary_.c_str());
    }
    void append(std::string_view bytes) override {
        while (!bytes.empty()) {
            const ssize_t put = ::write(file_.get(), bytes.data(), bytes.size());
            if (put < 0 && errno == EINTR) continue;
            if (put < 0) fail("cannot write", errno);
            bytes.remove_prefix(static_cast<std::size_t>(put));
        }
    }
    void commit(Durability durability) override {
        if (durability == Durability::now && ::fdatasync(file_.get()) != 0) fail("cannot write", errno);
        // Some file systems tell a failed delayed write only here.
        if (::close(file_.release()) != 0) fail("cannot write", errno);
        if (::renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, target_.c_str(), RENAME_NOREPLACE) != 0) {
            fail("cannot store " + target_.filename().string(), errno);
        }
        committed_ = true;
        if (durability == Durability::now) syncFolder(target_.parent_path());
    }

  private:
    const fs::path temporary_;
    const fs::path target_;
    FileDescriptor file_;
    bool committed_ = false;
};

class FileHold final : public ContentHold {
  public:
    FileHold(const fs::path& lock, const fs::path& blobs)
        : lock_(::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)),
          disk_(::open(blobs.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        if (!lock_ || !disk_) fail("cannot open " + lock.string(), errno);
        while (::flock(lock_.get(), LOCK_SH) != 0)
            if (errno != EINTR) fail("cannot lock " + lock.string(), errno);
    }
    void sync() override {
        // A descriptor tells of the failed writes since it was opened, once: hence one of before the first
        // write, and no second try.
        if (::syncfs(disk_.get()) != 0)
            throw DiskFailedError(std::string("contents: cannot sync: ") + std::strerror(errno));
    }

  private:
    FileDescriptor lock_;
    FileDescriptor disk_;
};

std::string sliceName(unsigned slice) {
    constexpr char kDigits[] = "0123456789abcdef";
    return {kDigits[slice / 16 % 16], kDigits[slice % 16]};
}

}  // namespace

bool isUploadName(std::string_view name) {
    return !name.empty() && name.size() <= 200 && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
               c == '_';
    });
}

FileContentStore::FileContentStore(const fs::path& folder)
    : folder_(folder), blobs_(folder / "blobs"), incoming_(folder / "incoming") {
    bool added = makeFolder(blobs_);
    added = makeFolder(incoming_) || added;
    if (added) syncFolder(folder_);
    added = false;
    for (unsigned slice = 0; slice < kSlices; ++slice)
        added = makeFolder(blobs_ / sliceName(slice)) || added;
    if (added) syncFolder(blobs_);
}

fs::path FileContentStore::pathOf(std::string_view uploadName) const {
    return blobs_ / digestOf(uploadName).substr(0, 2) / std::string(uploadName);
}

std::unique_ptr<ContentReader> FileContentStore::open(std::string_view uploadName) {
    if (!isUploadName(uploadName)) return nullptr;
    FileDescriptor file(::open(pathOf(uploadName).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!file && errno == ENOENT) return nullptr;
    if (!file) fail("cannot open " + std::string(uploadName), errno);
    return std::make_unique<FileReader>(std::move(file));
}

std::unique_ptr<ContentWriter> FileContentStore::create(std::string_view uploadName) {
    if (!isUploadName(uploadName)) throw ServiceError("contents: not an upload name");
    const std::string temporary = std::string(uploadName) + "." + randomToken().substr(0, 16);
    return std::make_unique<FileWriter>(incoming_ / temporary, pathOf(uploadName));
}

std::unique_ptr<PartialContents> FileContentStore::partial(std::string_view key) {
    if (!isUploadName(key)) throw ServiceError("contents: not a key");
    return std::make_unique<PartialFile>(incoming_ / (std::string(key) + ".part"),
                                         [this](std::string_view name) {
                                             if (!isUploadName(name))
                                                 throw ServiceError("contents: not an upload name");
                                             return pathOf(name);
                                         });
}

void FileContentStore::remove(std::string_view uploadName) {
    if (isUploadName(uploadName) && ::unlink(pathOf(uploadName).c_str()) != 0 && errno != ENOENT) {
        fail("cannot remove " + std::string(uploadName), errno);
    }
}

std::unique_ptr<ContentHold> FileContentStore::hold() {
    return std::make_unique<FileHold>(folder_ / "holds", blobs_);
}

std::optional<std::int64_t> FileContentStore::sizeOf(std::string_view uploadName) {
    struct stat status {};
    if (!isUploadName(uploadName) || ::lstat(pathOf(uploadName).c_str(), &status) != 0) return std::nullopt;
    return status.st_size;
}

std::int64_t FileContentStore::freeBytes() {
    struct statvfs disk {};
    if (::statvfs(blobs_.c_str(), &disk) != 0) fail("cannot ask for free space", errno);
    return static_cast<std::int64_t>(disk.f_bavail) * static_cast<std::int64_t>(disk.f_frsize);
}

void FileContentStore::dropUnfinished(std::chrono::seconds age) {
    const auto limit = fs::file_time_type::clock::now() - age;
    std::error_code error;
    for (fs::directory_iterator entry(incoming_, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code gone;
        const auto written = entry->last_write_time(gone);
        if (!gone && written < limit) fs::remove(entry->path(), gone);
    }
}

std::vector<std::string> FileContentStore::namesOlderThan(std::chrono::seconds age, unsigned slice) {
    const fs::path folder = blobs_ / sliceName(slice);
    const std::time_t limit = std::time(nullptr) - age.count();
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        struct stat status {};
        // The time of the last change of the file's names, which no writer of its bytes can set.
        if (::lstat(entry->path().c_str(), &status) == 0 && status.st_ctime <= limit)
            names.push_back(entry->path().filename().string());
    }
    return names;
}

int FileContentStore::sweep(std::chrono::seconds age, unsigned slice, const StraysOf& straysOf) {
    const FileDescriptor lock(::open((folder_ / "holds").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lock) fail("cannot open the lock of the store", errno);
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) return 0;
    const auto strays = straysOf(namesOlderThan(age, slice));
    for (const auto& name : strays)
        remove(name);
    return static_cast<int>(strays.size());
}

void FileContentStore::setAside(std::string_view uploadName) {
    const fs::path folder = folder_ / "unclaimed";
    if (makeFolder(folder)) syncFolder(folder_);
    if (!isUploadName(uploadName) ||
        ::renameat2(AT_FDCWD, pathOf(uploadName).c_str(), AT_FDCWD,
                    (folder / std::string(uploadName)).c_str(), RENAME_NOREPLACE) != 0) {
        fail("cannot set " + std::string(uploadName) + " aside", errno);
    }
}

}  // namespace tarnwell::service
