#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarnwell {

struct TWVirtualFile;
struct ManagedShare;

/// Where everything lies on this machine, and which names mean what.
///
/// The cache is laid out by server identity, never by the names that the user sees: a rename on the drive
/// never moves cached contents.
///
/// Constant after construction, so any thread may ask. The name rules are static: pure functions of a path or
/// name.
class CacheLayout {
  public:
    struct Locations {
        std::string home;       ///< $HOME
        std::string dataHome;   ///< $XDG_DATA_HOME
        std::string cacheHome;  ///< $XDG_CACHE_HOME
        std::string appTitle;
        std::string oldAppTitle;  ///< empty: no older title
    };

    explicit CacheLayout(Locations locations);

    /// Makes sure that the five folders exist. A folder that can neither be found nor made is fatal: logs and
    /// ends the process with status 100. Called once at start-up, on the main thread, before anything uses
    /// the folders.
    void initCachePathes() const;

    [[nodiscard]] const std::string& mountPath() const { return mountPath_; }
    /// Empty when there is no old title.
    [[nodiscard]] const std::string& oldMountPath() const { return oldMountPath_; }
    [[nodiscard]] const std::string& oldCachePath() const { return oldCachePath_; }
    [[nodiscard]] const std::string& rootCachePath() const { return root_; }
    [[nodiscard]] const std::string& metadataPath() const { return root_; }
    [[nodiscard]] const std::string& filesCachePath() const { return files_; }
    [[nodiscard]] const std::string& uploadsCachePath() const { return uploads_; }
    [[nodiscard]] const std::string& downloadsCachePath() const { return downloads_; }
    [[nodiscard]] const std::string& logsPath() const { return logs_; }

    /// An id as the name of a file. Ids come from the service, and whoever speaks for it must not reach
    /// beyond the cache: what is not a plain name is spelled with "%", so that two ids never share a name. A
    /// leading dot is kept for names of this program's own.
    [[nodiscard]] static std::string fileNameForId(std::string_view id);
    /// The id that fileNameForId() gives this name; none when it gives it to no id.
    [[nodiscard]] static std::optional<std::string> idOfFileName(std::string_view name);
    /// REQUIRES (all six): the record has the ids or names that the path is made of.
    [[nodiscard]] std::string cachePathForFile(const TWVirtualFile& file) const;
    [[nodiscard]] std::string extendedAttrsPathForFile(const TWVirtualFile& file) const;
    [[nodiscard]] std::string cachePathForShare(const ManagedShare& share) const;
    [[nodiscard]] std::string extendedAttrsPathForShare(const ManagedShare& share) const;
    [[nodiscard]] std::string cachePathForUpload(const TWVirtualFile& file) const;
    [[nodiscard]] std::string cachePathForFileDownload(const TWVirtualFile& file) const;

    /// Names that take no part in synchronisation. Folder names are never filtered.
    [[nodiscard]] static bool isPathIgnored(std::string_view path, bool isFolder);
    [[nodiscard]] static bool containsInvalidCharacters(std::string_view name);
    [[nodiscard]] static std::string fixInvalidCharacters(std::string_view name);
    [[nodiscard]] static bool isRootPath(std::string_view drivePath);
    [[nodiscard]] static bool isSharePath(std::string_view drivePath);
    /// "/.fuselock", or any path whose last component is ".twrefresh".
    [[nodiscard]] static bool isSpecialPath(std::string_view drivePath);

    /// The drive path of an absolute one, without regard to letter case of the mount path; empty for the
    /// mount point itself. False when the path lies outside the mount point.
    [[nodiscard]] bool fullPathToRelative(std::string_view fullPath, std::string& relative) const;
    [[nodiscard]] std::string relativePathToFull(std::string_view drivePath) const;

    /// Moves what an earlier title left behind. Messages go to the system log: the log files may not exist
    /// yet.
    void migrateMetadataIfNeeded() const;
    static void migrateDirectory(const std::string& fromPath, const std::string& toPath);
    void migrateMountDirectoryIfNeeded() const;

  private:
    std::string mountPath_, oldMountPath_, oldCachePath_, oldRoot_;
    std::string root_, files_, uploads_, downloads_, logs_;
};

}  // namespace tarnwell
