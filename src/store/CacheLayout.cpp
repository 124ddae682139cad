#include "store/CacheLayout.h"

#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "store/ManagedShare.h"
#include "store/TWVirtualFile.h"
#include "util/Format.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace fs = std::filesystem;

namespace {

constexpr int kExitNoCacheFolder = 100;

constexpr std::string_view kInvalidCharacters = "/";

template <class... T>
void logToSystem(std::string_view text, const T&... arguments) {
    syslog(LOG_NOTICE, "%s", format(text, arguments...).c_str());
}

std::string inFolder(const std::string& folder, std::string_view id, std::string_view suffix = {}) {
    std::string path = folder;
    path += '/';
    path += CacheLayout::fileNameForId(id);
    path += suffix;
    return path;
}

/// Only the user may look in: what lies here are the contents of all shares.
void ensureFolder(const std::string& path) {
    std::error_code error;
    const auto status = fs::status(path, error);
    if (fs::is_directory(status)) return;
    if (fs::exists(status)) {
        TWLog(kLogMain, "Error! Unknown file exists at cache directory location : %@", path);
        std::exit(kExitNoCacheFolder);
    }
    fs::create_directories(fs::path(path).parent_path(), error);
    if (::mkdir(path.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        error.assign(errno, std::generic_category());
        TWLog(kLogMain, "Error! Cannot create cache directory at path : %@, error : %@", path,
              error.message());
        std::exit(kExitNoCacheFolder);
    }
}

dev_t deviceOf(const fs::path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_dev : 0;
}

/// Whether a folder, with all below it, has no file but hidden ones (a file browser's) and nothing is mounted
/// in it. A mount point that was used has nothing of its own; what has is a folder of the user's, or a drive.
bool holdsNothing(const fs::path& folder) {
    const dev_t device = deviceOf(folder);
    if (device != deviceOf(folder.parent_path())) return false;
    std::error_code error;
    fs::recursive_directory_iterator it(folder, error);
    for (; !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        const bool isFolder = it->symlink_status(error).type() == fs::file_type::directory;
        const bool isHidden = it->path().filename().native().starts_with('.');
        if (error || deviceOf(it->path()) != device || (!isFolder && !isHidden)) return false;
    }
    return !error;
}

std::size_t characterCount(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

/// The first `count` characters of `text`, or all of it.
std::string_view firstCharacters(std::string_view text, std::size_t count) {
    std::size_t at = 0;
    for (; at < text.size(); ++at) {
        if ((static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U) continue;
        if (count == 0) break;
        --count;
    }
    return text.substr(0, at);
}

}  // namespace

CacheLayout::CacheLayout(Locations locations)
    : mountPath_(appendPathComponent(locations.home, locations.appTitle)),
      oldCachePath_(appendPathComponent(locations.cacheHome, locations.appTitle + "Cache")),
      root_(appendPathComponent(locations.dataHome, locations.appTitle)),
      files_(root_ + "/Files"),
      uploads_(root_ + "/Uploads"),
      downloads_(root_ + "/Downloads"),
      logs_(root_ + "/Logs") {
    if (!locations.oldAppTitle.empty()) {
        oldMountPath_ = appendPathComponent(locations.home, locations.oldAppTitle);
        oldRoot_ = appendPathComponent(locations.dataHome, locations.oldAppTitle);
    }
}

void CacheLayout::initCachePathes() const {
    for (const auto* path : {&root_, &files_, &uploads_, &downloads_, &logs_}) {
        ensureFolder(*path);
    }
}

std::string CacheLayout::fileNameForId(std::string_view id) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    if (id.empty()) return "%";
    if (id.front() != '.' && id.find_first_of(std::string_view("/%\0", 3)) == std::string_view::npos) {
        return std::string(id);
    }
    std::string name;
    for (const char c : id) {
        if (c == '/' || c == '%' || c == '\0' || (c == '.' && name.empty())) {
            const auto byte = static_cast<unsigned char>(c);
            name += {'%', kDigits[byte >> 4U], kDigits[byte & 15U]};
        } else {
            name += c;
        }
    }
    return name;
}

std::optional<std::string> CacheLayout::idOfFileName(std::string_view name) {
    if (name == "%") return std::string();
    std::string id;
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (name[i] != '%') {
            id += name[i];
            continue;
        }
        unsigned byte = 0;
        const auto digits = name.substr(i + 1, 2);
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
        if (error != std::errc() || digits.size() != 2 || end != digits.data() + 2) return std::nullopt;
        id += static_cast<char>(byte);
        i += 2;
    }
    if (fileNameForId(id) != name) return std::nullopt;
    return id;
}

std::string CacheLayout::cachePathForFile(const TWVirtualFile& file) const {
    return inFolder(inFolder(files_, file.ShareId.view()), file.InternalName.view());
}

std::string CacheLayout::extendedAttrsPathForFile(const TWVirtualFile& file) const {
    return inFolder(inFolder(files_, file.ShareId.view()), file.InternalName.view(), ".attrs");
}

std::string CacheLayout::cachePathForShare(const ManagedShare& share) const {
    return inFolder(files_, share.ShareId.value_or(""));
}

std::string CacheLayout::extendedAttrsPathForShare(const ManagedShare& share) const {
    return inFolder(files_, share.ShareId.value_or(""), ".attrs");
}

std::string CacheLayout::cachePathForUpload(const TWVirtualFile& file) const {
    return inFolder(uploads_, file.UploadName.view());
}

std::string CacheLayout::cachePathForFileDownload(const TWVirtualFile& file) const {
    return inFolder(downloads_, file.UploadName.view());
}

bool CacheLayout::isPathIgnored(std::string_view path, bool isFolder) {
    if (path.empty() || path == ".") return true;
    if (isFolder) return false;
    const std::string_view name = lastPathComponent(path);
    return name == "Icon" || name == "Icon?" || name == "Icon\r" || name.starts_with('~') ||
           name.ends_with(".tmp") || name.starts_with('.');
}

bool CacheLayout::containsInvalidCharacters(std::string_view name) {
    return name.find_first_of(kInvalidCharacters) != std::string_view::npos;
}

std::string CacheLayout::fixInvalidCharacters(std::string_view name) {
    std::string fixed(name);
    std::replace_if(
        fixed.begin(), fixed.end(),
        [](char c) { return kInvalidCharacters.find(c) != std::string_view::npos; }, '_');
    return fixed;
}

bool CacheLayout::isRootPath(std::string_view drivePath) {
    return drivePath.empty() || drivePath == "/";
}

bool CacheLayout::isSharePath(std::string_view drivePath) {
    if (drivePath.size() <= 2) return true;
    return drivePath.substr(1, drivePath.size() - 2).find('/') == std::string_view::npos;
}

bool CacheLayout::isSpecialPath(std::string_view drivePath) {
    return drivePath == "/.fuselock" || drivePath == ".twrefresh" || drivePath.ends_with("/.twrefresh");
}

bool CacheLayout::fullPathToRelative(std::string_view fullPath, std::string& relative) const {
    const std::string_view prefix = firstCharacters(fullPath, characterCount(mountPath_));
    const std::string_view rest = fullPath.substr(prefix.size());
    if (!isEqualLowercase(prefix, mountPath_) || !(rest.empty() || rest.front() == '/')) return false;
    relative = rest;
    return true;
}

std::string CacheLayout::relativePathToFull(std::string_view drivePath) const {
    return appendPathComponent(mountPath_, drivePath);
}

void CacheLayout::migrateMetadataIfNeeded() const {
    if (!oldRoot_.empty()) migrateDirectory(oldRoot_, root_);
}

void CacheLayout::migrateDirectory(const std::string& fromPath, const std::string& toPath) {
    std::error_code error;
    if (!fs::is_directory(fromPath, error)) return;
    if (fs::exists(fs::symlink_status(toPath, error))) {
        fs::remove_all(toPath, error);
        if (error) {
            logToSystem("Failed to migrate directory (%@ -> %@): %@", fromPath, toPath, error.message());
            return;
        }
        logToSystem("Migration target directory deleted (%@).", toPath);
    }
    fs::rename(fromPath, toPath, error);
    if (error) {
        logToSystem("Failed to migrate directory (%@ -> %@): %@", fromPath, toPath, error.message());
    } else {
        logToSystem("Directory successfully migrated (%@ -> %@).", fromPath, toPath);
    }
}

void CacheLayout::migrateMountDirectoryIfNeeded() const {
    std::error_code error;
    if (oldMountPath_.empty() || !fs::is_directory(oldMountPath_, error)) return;
    if (!holdsNothing(oldMountPath_)) {
        error = std::make_error_code(std::errc::directory_not_empty);
    } else {
        fs::remove_all(oldMountPath_, error);
    }
    if (error) {
        logToSystem("Failed to delete old mount directory (%@): %@", oldMountPath_, error.message());
    } else {
        logToSystem("Migrated mount directory deleted (%@).", oldMountPath_);
    }
}

}  // namespace tarnwell
