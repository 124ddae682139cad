#include "service/Exporter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <unordered_map>
#include <vector>

#include "service/FileDescriptor.h"
#include "service/ServiceError.h"

namespace tarnwell::service {

namespace fs = std::filesystem;

namespace {

constexpr std::int32_t kPage = 10'000;
constexpr std::size_t kCopyBytes = 1 << 20;

[[noreturn]] void fail(const std::string& what, const fs::path& path) {
    throw ServiceError(what + " " + path.string() + ": " + std::strerror(errno));
}

/// The live records by id; a record that changes between two pages counts as it is later.
std::unordered_map<std::string, TWVirtualFilePtr> liveRecords(MetadataStore& metadata,
                                                              const std::string& shareId) {
    std::unordered_map<std::string, TWVirtualFilePtr> records;
    for (std::int32_t from = 0;;) {
        const auto page = metadata.changesSince(shareId, from, kPage, "");
        if (!page) throw ServiceError("there is no such share");
        for (const auto& record : page->TwVirtualFiles) {
            if (record->Deleted) {
                records.erase(record->InternalName.str());
            } else {
                records[record->InternalName.str()] = record;
            }
        }
        if (page->TwVirtualFiles.size() < static_cast<std::size_t>(kPage)) return records;
        from = page->LargestTick;
    }
}

class Export {
  public:
    Export(ContentStore& contents, const std::unordered_map<std::string, TWVirtualFilePtr>& records,
           const std::function<void(const std::string&)>& report)
        : contents_(contents), report_(report), buffer_(kCopyBytes, '\0') {
        for (const auto& [id, record] : records)
            children_[record->ParrentId.str()].push_back(record);
    }

    void writeFolder(const std::string& id, const fs::path& path) {
        const auto items = children_.find(id);
        if (items == children_.end()) return;
        for (const auto& item : items->second) {
            const fs::path itemPath = path / item->PublicName.str();
            if (item->IsFile) {
                if (!writeFile(*item, itemPath)) continue;
            } else {
                if (::mkdir(itemPath.c_str(), 0700) != 0) fail("cannot make", itemPath);
                ++counts_.folders;
                writeFolder(item->InternalName.str(), itemPath);
            }
            finish(*item, itemPath);
        }
    }
    [[nodiscard]] const ExportCounts& counts() const { return counts_; }

  private:
    /// False, and reported, when there are no such contents.
    bool writeFile(const TWVirtualFile& record, const fs::path& path) {
        const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (file.get() < 0) fail("cannot make", path);
        const auto why = copyContents(record, file.get(), path);
        if (why.empty()) {
            ++counts_.files;
            counts_.bytes += record.size();
            return true;
        }
        ++counts_.missing;
        report_("left out " + path.string() + ": " + why);
        ::unlink(path.c_str());
        return false;
    }

    /// Empty, or what is wrong with the stored contents.
    std::string copyContents(const TWVirtualFile& record, int file, const fs::path& path) {
        if (record.size() == 0) return {};
        std::unique_ptr<ContentReader> reader;
        try {
            reader = contents_.open(record.UploadName.view());
        } catch (const ServiceError& error) {
            return error.what();
        }
        if (!reader) return "its contents are missing";
        if (reader->size() != record.size()) return "its contents have a wrong size";
        for (std::int64_t at = 0; at < reader->size();) {
            std::size_t count = 0;
            try {
                count = reader->read(at, buffer_.data(), buffer_.size());
            } catch (const ServiceError& error) {
                return error.what();
            }
            if (count == 0) return "its contents end early";
            for (std::size_t done = 0; done < count;) {
                const ssize_t written = ::write(file, buffer_.data() + done, count - done);
                if (written < 0 && errno == EINTR) continue;
                if (written <= 0) fail("cannot write", path);
                done += static_cast<std::size_t>(written);
            }
            at += static_cast<std::int64_t>(count);
        }
        return {};
    }

    /// Permissions and times, which what is written into a folder would change.
    static void finish(const TWVirtualFile& record, const fs::path& path) {
        const auto fallback = record.IsFile ? 0600 : 0700;
        const auto mode = static_cast<mode_t>(record.POSIXPermissions.value_or(fallback) & 0777);
        if (::chmod(path.c_str(), mode) != 0) fail("cannot set the permissions of", path);
        const auto timeOf = [](Date date) {
            const auto ticks = date.time_since_epoch();
            const auto seconds = std::chrono::floor<std::chrono::seconds>(ticks);
            return timespec{seconds.count(),
                            std::chrono::duration_cast<std::chrono::nanoseconds>(ticks - seconds).count()};
        };
        const timespec times[] = {timeOf(record.LastAccessTime), timeOf(record.LastWriteTime)};
        if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) fail("cannot set the times of", path);
    }

    ContentStore& contents_;
    const std::function<void(const std::string&)>& report_;
    std::unordered_map<std::string, std::vector<TWVirtualFilePtr>> children_;
    std::string buffer_;
    ExportCounts counts_;
};

}  // namespace

ExportCounts exportShare(MetadataStore& metadata, ContentStore& contents, const std::string& shareId,
                         const fs::path& target, const std::function<void(const std::string&)>& report) {
    const auto records = liveRecords(metadata, shareId);
    std::error_code error;
    fs::create_directories(target, error);
    if (error || !fs::is_empty(target, error) || error) {
        throw ServiceError(target.string() + " is not an empty folder");
    }
    const FileDescriptor disk(::open(target.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!disk) fail("cannot open", target);
    Export work(contents, records, report);
    work.writeFolder(shareId, target);
    if (::syncfs(disk.get()) != 0) fail("cannot sync", target);
    return work.counts();
}

}  // namespace tarnwell::service
