#include "store/KeptFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

#include "platform/Clock.h"
#include "platform/PrivateFile.h"
#include "store/CacheLayout.h"
#include "store/FileCopy.h"
#include "store/StoreFiles.h"
#include "store/TWVirtualFile.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kTextFile = "Kept.txt";
constexpr std::size_t kMostCounted = 1000;
constexpr std::size_t kLargestText = std::size_t{16} << 20U;
constexpr int kMostNames = 10'000;
constexpr std::size_t kLongestName = 255;
constexpr std::size_t kDateLength = 10;

std::string component(std::string_view name) {
    std::string safe = CacheLayout::fixInvalidCharacters(name.substr(0, name.find('\0')));
    if (safe.empty() || safe == "." || safe == "..") safe += '_';
    return safe;
}

/// "name.txt", 2 -> "name (2).txt"; the stem is cut where the whole would be too long.
std::string numbered(const std::string& name, int number) {
    if (number == 1) return name;
    const auto dot = name.rfind('.');
    const std::size_t stem = dot == std::string::npos || dot == 0 ? name.size() : dot;
    const std::string mark = " (" + std::to_string(number) + ")";
    const std::string end = name.substr(stem);
    if (end.size() + mark.size() >= kLongestName) return name.substr(0, kLongestName - mark.size()) + mark;
    return name.substr(0, std::min(stem, kLongestName - end.size() - mark.size())) + mark + end;
}

bool isSameFile(const std::string& a, const std::string& b) {
    struct stat first {};
    struct stat second {};
    return ::lstat(a.c_str(), &first) == 0 && ::lstat(b.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

/// The bytes under a second name, which must be free. 0 or errno.
int copyTo(const std::string& from, const std::string& to) {
    const OwnedDescriptor source(::open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!source) return errno;
    return copyFileContents(source.get(), to, [] { return false; }).error.value();
}

/// Makes the file and every folder from its own up to `top` durable. 0 or errno.
int syncUpTo(const std::string& path, const std::string& top) {
    const OwnedDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!file || ::fsync(file.get()) != 0) return errno;
    for (fs::path folder = fs::path(path).parent_path();; folder = folder.parent_path()) {
        if (const int error = syncStoreFolder(folder.string())) return error;
        if (folder == top || folder == folder.parent_path()) return 0;
    }
}

}  // namespace

struct KeptFiles::Place {
    std::string path;
    bool isNew = false;  ///< it was not kept before
};

KeptFiles::KeptFiles(const CacheLayout& layout, const Clock& clock)
    : folder_(folderIn(layout)), clock_(clock) {}

std::string KeptFiles::folderIn(const CacheLayout& layout) {
    return layout.rootCachePath() + "/Kept";
}

void KeptFiles::setObserver(Observer observer) {
    const std::lock_guard lock(mutex_);
    observer_ = std::move(observer);
}

int KeptFiles::keep(const TWVirtualFile& file, const std::string& bytesPath, std::string_view reason) {
    return put(file, bytesPath, reason, true);
}

int KeptFiles::keepBeforeRemoval(const TWVirtualFile& file, const std::string& bytesPath,
                                 std::string_view reason) {
    return put(file, bytesPath, reason, false);
}

int KeptFiles::put(const TWVirtualFile& file, const std::string& bytesPath, std::string_view reason,
                   bool removesSource) {
    const std::lock_guard lock(mutex_);
    struct stat status {};
    if (::lstat(bytesPath.c_str(), &status) != 0) return errno;
    if (!S_ISREG(status.st_mode)) return EINVAL;

    std::string drivePath = file.FullPath.str();
    if (drivePath.empty()) drivePath = "/" + file.ShareId.str() + "/" + file.PublicName.str();
    const fs::path shown = fs::path(drivePath).relative_path();
    const std::string shareFolder = folder_ + "/" + component((*shown.begin()).native());
    const std::string date = JSONObjectFromNSDate(clock_.now()).substr(0, kDateLength);
    const std::string dateFolder = shareFolder + "/" + date;
    std::string folder = dateFolder;
    std::string name;
    for (auto part = std::next(shown.begin()); part != shown.end(); ++part) {
        if (!name.empty()) folder += "/" + name;
        name = component(part->native());
    }
    if (name.empty()) name = component(file.PublicName.view());

    Place placed;
    int error = place(bytesPath, folder, name, removesSource, placed);
    // A file in a folder's place, or a path longer than the system takes: without the folders between.
    if (error != 0 && error != ENOSPC && folder != dateFolder)
        error = place(bytesPath, dateFolder, name, removesSource, placed);
    if (error == 0) error = syncUpTo(placed.path, fs::path(folder_).parent_path().string());
    if (error != 0) {
        TWLog(kLogMain, "Error! Cannot keep the unsent contents of %@ : error %@", drivePath,
              std::strerror(error));
        return error;
    }
    if (removesSource && ::unlink(bytesPath.c_str()) != 0 && errno != ENOENT)
        TWLog(kLogMain, "Warning! Cannot remove %@ : error %@", bytesPath, std::strerror(errno));
    if (!placed.isNew) return 0;
    describe(shareFolder, file, placed.path, reason);
    TWLog(kLogMain, "Warning! Unsent contents of %@ were put aside as %@, because %@.", drivePath,
          placed.path, reason);
    if (observer_) observer_({drivePath, placed.path, std::string(reason), 0});
    return 0;
}

/// Gives the bytes a free name in the folder, which is made. They have their former name as well then, unless
/// the file system has no second names and the former one is not wanted.
int KeptFiles::place(const std::string& bytesPath, std::string folder, const std::string& name,
                     bool removesSource, Place& placed) const {
    if (const int error = makePrivateFolders(folder)) return error;
    for (int number = 1; number < kMostNames; ++number) {
        placed.path = folder + "/" + numbered(name, number);
        placed.isNew = true;
        int error = ::link(bytesPath.c_str(), placed.path.c_str()) == 0 ? 0 : errno;
        if (error == EPERM || error == EOPNOTSUPP || error == EXDEV || error == EMLINK) {
            error = removesSource && ::renameat2(AT_FDCWD, bytesPath.c_str(), AT_FDCWD, placed.path.c_str(),
                                                 RENAME_NOREPLACE) == 0
                        ? 0
                        : copyTo(bytesPath, placed.path);
        }
        if (error == EEXIST && isSameFile(bytesPath, placed.path)) {
            placed.isNew = false;
            return 0;
        }
        if (error != EEXIST) return error;
    }
    return EEXIST;
}

/// One line of the text file. Without it the bytes are kept all the same.
void KeptFiles::describe(const std::string& shareFolder, const TWVirtualFile& file, const std::string& path,
                         std::string_view reason) const {
    const std::string line = JSONObjectFromNSDate(clock_.now()) + "\t" + escaped(file.ShareId.view(), "") +
                             "\t" + escaped(path.substr(shareFolder.size() + 1), "") + "\t" +
                             escaped(reason, "") + "\n";
    const std::string text = shareFolder + "/" + std::string(kTextFile);
    const OwnedDescriptor out(
        ::open(text.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600));
    const bool written =
        out && ::write(out.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size());
    if (!written || ::fsync(out.get()) != 0)
        TWLog(kLogMain, "Warning! Cannot write %@ : error %@", text, std::strerror(errno));
}

void KeptFiles::shareIsBack(std::string_view shareId, const std::string& drivePath) const {
    const auto paths = pathsOfShare(shareId);
    if (paths.empty()) return;
    const auto folder = folder_ + "/" + fs::relative(paths.back(), folder_).begin()->native();
    TWLog(kLogMain, "Warning! Share %@ is back. %d files of it that were not sent are in %@.", drivePath,
          paths.size(), folder);
    const std::lock_guard lock(mutex_);
    if (observer_) observer_({drivePath, folder, "the share is back", paths.size()});
}

std::vector<std::string> KeptFiles::pathsOfShare(std::string_view shareId) const {
    const std::lock_guard lock(mutex_);
    const std::string id = escaped(shareId, "");
    std::vector<std::string> paths;
    std::error_code error;
    for (fs::directory_iterator share(folder_, error), end; !error && share != end; share.increment(error)) {
        const auto contents =
            readWholeFile(share->path().string() + "/" + std::string(kTextFile), kLargestText);
        std::string_view rest(contents.bytes);
        while (!rest.empty()) {
            std::string_view line = rest.substr(0, rest.find('\n'));
            rest.remove_prefix(std::min(rest.size(), line.size() + 1));
            std::string_view fields[3];
            for (auto& field : fields) {
                field = line.substr(0, line.find('\t'));
                line.remove_prefix(std::min(line.size(), field.size() + 1));
            }
            const auto path = fields[1] == id ? unescaped(fields[2]) : std::nullopt;
            if (!path || path->empty()) continue;
            std::error_code none;
            auto whole = share->path().string() + "/" + *path;
            if (fs::exists(fs::symlink_status(whole, none))) paths.push_back(std::move(whole));
        }
    }
    return paths;
}

std::size_t KeptFiles::count(const CacheLayout& layout) {
    std::size_t files = 0;
    std::error_code error;
    fs::recursive_directory_iterator entry(folderIn(layout), error);
    for (; !error && entry != fs::recursive_directory_iterator() && files < kMostCounted;
         entry.increment(error)) {
        const bool isText = entry.depth() == 1 && entry->path().filename().native() == kTextFile;
        if (!isText && entry->is_regular_file(error)) ++files;
    }
    return files;
}

}  // namespace tarnwell
