#include "drive/TWFuseFileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "drive/ExtendedAttributes.h"
#include "store/Enums.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {
namespace {

constexpr std::chrono::milliseconds kQuietPeriod = std::chrono::seconds(4);
constexpr const char* kFuseLockName = ".fuselock";
constexpr const char* kExcessiveNotFound = "TWFuseFileSystem: attributesOfItemAtPath: failed: %@";

Date dateOf(const timespec& time) {
    return Date{std::chrono::duration_cast<TickDuration>(std::chrono::seconds(time.tv_sec)) +
                TickDuration{time.tv_nsec / 100}};
}

const char* yesNo(const void* pointer) {
    return pointer ? "present" : "(null)";
}

}  // namespace

TWFuseFileSystem::TWFuseFileSystem(TWMetadataStorage& store, const CacheLayout& layout, Executor& background,
                                   Mediator& mediator)
    : store_(store), layout_(layout), background_(background), mediator_(mediator) {
    struct stat attributes {};
    if (::stat(layout_.downloadsCachePath().c_str(), &attributes) != 0) {
        TWLog(kLogMain, "Fatal: cannot obtain attributes of cache folder. Error %@", std::strerror(errno));
        std::_Exit(1);
    }
    fileOwnerAccountID_ = attributes.st_uid;
    fileGroupOwnerAccountID_ = attributes.st_gid;
}

std::vector<TWFuseFileSystem::DirectoryEntry> TWFuseFileSystem::contentsOfDirectoryAtPath(
    const std::string& path) const {
    TWLog(kLogFuse, "TWFuseFileSystem: contentsOfDirectoryAtPath:%@", path);
    std::vector<DirectoryEntry> entries;
    if (CacheLayout::isRootPath(path)) {
        const auto lock = store_.beginReadStorage();
        for (const auto& share : store_.shares()) {
            const std::string name = share->DisplayName.value_or("");
            if (!name.empty()) entries.push_back({decomposed(name), share->ShareId.value_or(""), true});
        }
        entries.push_back({kFuseLockName, {}, false});
    } else {
        struct Child {
            SharedString name, id;
            bool isFolder;
        };
        std::vector<Child> children;
        {
            const auto lock = store_.beginReadStorage();
            SharedString parentId;
            if (CacheLayout::isSharePath(path)) {
                if (const auto share = store_.shareWithPath(path); share && share->ShareId)
                    parentId = *share->ShareId;
            } else if (const auto folder = store_.fileWithPath(path)) {
                parentId = folder->InternalName;
            }
            if (const auto* items = store_.directoryItemsWithParent(parentId.view())) {
                children.reserve(items->size());
                items->forEach([&](const TWVirtualFilePtr& file) {
                    if (!file->Deleted)
                        children.push_back({file->PublicName, file->InternalName, !file->IsFile});
                });
            }
        }
        // A hundred thousand names are decomposed without anybody waiting for the store.
        entries.reserve(children.size());
        for (auto& child : children) {
            if (CacheLayout::containsInvalidCharacters(child.name.view())) continue;
            entries.push_back({decomposed(child.name.view()), std::move(child.id), child.isFolder});
        }
    }
    if (mediator_.excessiveLogging()) {
        TWLog(kLogFuse, "TWFuseFileSystem: contentsOfDirectoryAtPath: returned %d items", entries.size());
    }
    return entries;
}

ErrnoOr<TWFuseFileSystem::VolumeAttributes> TWFuseFileSystem::attributesOfFileSystemForPath(
    const std::string& /*path*/) const {
    struct statvfs volume {};
    if (::statvfs(layout_.filesCachePath().c_str(), &volume) != 0) {
        const Errno error{errno};
        TWLog(kLogFuse, "Warning! statvfs failed with error %d", error.code);
        return error;
    }
    return VolumeAttributes{static_cast<std::uint64_t>(volume.f_blocks) * volume.f_frsize,
                            static_cast<std::uint64_t>(volume.f_bfree) * volume.f_frsize,
                            static_cast<std::uint64_t>(volume.f_bavail) * volume.f_frsize, volume.f_files,
                            volume.f_ffree};
}

TWFuseFileSystem::ItemAttributes TWFuseFileSystem::ownedAttributes() const {
    ItemAttributes attributes;
    attributes.owner = fileOwnerAccountID_;
    attributes.group = fileGroupOwnerAccountID_;
    return attributes;
}

ErrnoOr<TWFuseFileSystem::ItemAttributes> TWFuseFileSystem::rootAttributes() const {
    struct stat folder {};
    if (::stat(layout_.filesCachePath().c_str(), &folder) != 0) return Errno{ENOENT};
    ItemAttributes attributes;
    attributes.isFolder = true;
    attributes.creation = dateOf(folder.st_ctim);
    attributes.modification = dateOf(folder.st_mtim);
    attributes.access = dateOf(folder.st_atim);
    attributes.permissions = folder.st_mode & 07777;
    attributes.owner = folder.st_uid;
    attributes.group = folder.st_gid;
    return attributes;
}

ErrnoOr<TWFuseFileSystem::ItemAttributes> TWFuseFileSystem::attributesOfItemAtPath(
    const std::string& path, const TWFuseFileData* userData) const {
    const bool verbose = mediator_.excessiveLogging();
    if (verbose) {
        TWLog(kLogFuse, "TWFuseFileSystem: attributesOfItemAtPath:%@ userData: %@", path, yesNo(userData));
    }
    ItemAttributes attributes = ownedAttributes();
    if (CacheLayout::isSpecialPath(path)) {
        attributes.creation = attributes.modification = attributes.access = store_.clock().now();
        attributes.permissions = 0700;
        return attributes;
    }
    bool found = false;
    if (CacheLayout::isRootPath(path)) {
        if (auto root = rootAttributes()) return root;
    } else if (CacheLayout::isSharePath(path)) {
        const auto lock = store_.beginReadStorage();
        if (const auto share = store_.shareWithPath(path)) {
            found = true;
            attributes.id = share->ShareId.value_or("");
            attributes.isFolder = true;
            attributes.creation = share->CreationDate.value_or(Date{});
            attributes.modification = attributes.access =
                share->ModificationDate.value_or(attributes.creation);
            attributes.permissions = 0700;
        }
    } else {
        const auto lock = store_.beginReadStorage();
        if (const auto file = store_.fileWithPath(path); file && !file->Deleted) {
            found = true;
            attributes.id = file->InternalName;
            attributes.isFolder = !file->IsFile;
            attributes.size = file->IsFile ? std::max<std::int64_t>(file->size(), 0) : 0;
            attributes.creation = file->CreationTime;
            attributes.modification = file->LastWriteTime;
            attributes.access = file->LastAccessTime;
            attributes.permissions =
                static_cast<std::uint32_t>(file->POSIXPermissions.value_or(
                    file->IsFile ? kDefaultFilePermissions : kDefaultFolderPermissions)) &
                07777;
        }
    }
    if (found) return attributes;
    if (verbose) TWLog(kLogFuse, kExcessiveNotFound, path);
    return Errno{ENOENT};
}

bool TWFuseFileSystem::isReadOnly(const std::string& path) const {
    const auto lock = store_.beginReadStorage();
    const auto share = store_.shareWithFilePath(path);
    return share && share->ShareAcl && share->ShareAcl->AclType == kAclReadOnly;
}

ErrnoOr<TWFuseFileDataPtr> TWFuseFileSystem::openFileAtPath(const std::string& path, int mode, pid_t caller) {
    TWLog(kLogFuse, "TWFuseFileSystem: openFileAtPath:%@ mode:%@ (%d)", path, openFlagsToString(mode), mode);
    if (CacheLayout::isSpecialPath(path)) return TWFuseFileDataPtr{};
    const bool changes = (mode & (O_WRONLY | O_RDWR | O_CREAT)) != 0;
    if (changes && !CacheLayout::isPathIgnored(path, false) && isReadOnly(path)) return Errno{EACCES};
    SharedString fileId;
    {
        const auto lock = store_.beginReadStorage();
        const auto file = store_.fileWithPath(path);
        if (!file) return Errno{ENOENT};
        fileId = file->InternalName;
    }
    return TWFuseFileData::create(mode, caller, std::move(fileId));
}

ErrnoOr<TWFuseFileSystem::FileRange> TWFuseFileSystem::rangeOfFileAtPath(const std::string& path,
                                                                         TWFuseFileData* userData,
                                                                         std::size_t size,
                                                                         std::int64_t offset) {
    TWVirtualFilePtr file;
    SharedString version;
    std::int64_t length = 0;
    {
        const auto lock = store_.beginReadStorage();
        file = store_.fileWithPath(path);
        if (file && file->IsFile) {
            length = file->size();
            version = file->UploadName;
        }
    }
    if (!file || !file->IsFile || offset < 0) {
        TWLog(kLogFuse, "TWFuseFileSystem: readFileAtPath:%@ failed : EINVAL", path);
        return Errno{EINVAL};
    }
    FileRange range;
    range.offset = offset;
    if (offset >= length) return range;
    range.size =
        static_cast<std::size_t>(std::min<std::int64_t>(static_cast<std::int64_t>(size), length - offset));

    if (userData && (range.file = userData->freshCacheFile(version))) return range;
    if (!mediator_.isFileDownloaded(file)) {
        auto bytes = mediator_.downloadFileChunk(file, offset, static_cast<std::int64_t>(range.size));
        if (!bytes) return Errno{EIO};
        if (bytes->size() > range.size) bytes->resize(range.size);
        range.size = bytes->size();
        range.data = std::move(*bytes);
        return range;
    }
    if (!userData) {
        TWLog(kLogFuse, "TWFuseFileSystem: readFileAtPath:%@ failed : userData is nil", path);
        return Errno{EBADF};
    }
    auto opened = userData->openCacheFile(layout_.cachePathForFile(*file), version);
    if (!opened) return Errno{opened.error()};
    range.file = *std::move(opened);
    return range;
}

ErrnoOr<std::size_t> TWFuseFileSystem::readFileAtPath(const std::string& path, TWFuseFileData* userData,
                                                      char* buffer, std::size_t size, std::int64_t offset) {
    const auto range = rangeOfFileAtPath(path, userData, size, offset);
    if (!range) return Errno{range.error()};
    if (!range->file) {
        std::memcpy(buffer, range->data.data(), range->data.size());
        return range->data.size();
    }
    std::size_t done = 0;
    while (done < range->size) {
        const auto count = ::pread(range->file->descriptor(), buffer + done, range->size - done,
                                   range->offset + static_cast<off_t>(done));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            const Errno error{errno};
            TWLog(kLogFuse, "TWFuseFileSystem: readFileAtPath:%@ failed : pread error %d", path, error.code);
            return error;
        }
        if (count == 0) break;
        done += static_cast<std::size_t>(count);
    }
    return done;
}

void TWFuseFileSystem::releaseFileAtPath(const std::string& path, TWFuseFileData* userData) {
    if (CacheLayout::isSpecialPath(path)) return;
    if (!userData) {
        TWLog(kLogFuse, "TWFuseFileSystem: releaseFileAtPath:%@ : empty userData.", path);
        return;
    }
    {
        const auto lock = store_.beginWriteStorage();
        const auto file = store_.fileWithPath(path);
        if (file && userData->modified() && file->LocallyUpdated.value_or(false)) {
            const auto fileId = userData->fileId();
            const auto handles = TWFuseFileData::openedFiles();
            const bool othersWrite = std::any_of(handles.begin(), handles.end(), [&](const auto& other) {
                return other.get() != userData && other->fileId() == fileId && other->modified();
            });
            if (!othersWrite) {
                if (!CacheLayout::isPathIgnored(path, false)) mediator_.journalUpdate(file);
                file->LocallyUpdated.reset();
                store_.markChanged(*file);
            }
        }
    }
    userData->close();
    TWLog(kLogFuse, "TWFuseFileSystem: releaseFileAtPath:%@ : userData released.", path);
}

ErrnoOr<std::vector<std::string>> TWFuseFileSystem::extendedAttributesOfItemAtPath(
    const std::string& path) const {
    TWLog(kLogFuse, "TWFuseFileSystem: extendedAttributesOfItemAtPath:%@", path);
    std::vector<std::string> names;
    if (CacheLayout::isRootPath(path)) return names;
    std::string attributeFile;
    {
        const auto lock = store_.beginReadStorage();
        if (CacheLayout::isSharePath(path)) {
            if (const auto share = store_.shareWithPath(path))
                attributeFile = layout_.extendedAttrsPathForShare(*share);
        } else if (const auto file = store_.fileWithPath(path)) {
            attributeFile = layout_.extendedAttrsPathForFile(*file);
        }
    }
    if (attributeFile.empty()) return Errno{ENOENT};
    for (auto& [name, value] : readExtendedAttributes(attributeFile)) {
        if (name != kQuarantineAttribute) names.push_back(name);
    }
    return names;
}

ErrnoOr<std::string> TWFuseFileSystem::valueOfExtendedAttribute(const std::string& name,
                                                                const std::string& ofItemAtPath,
                                                                std::int64_t position) const {
    if (mediator_.excessiveLogging()) {
        TWLog(kLogFuse, "TWFuseFileSystem: valueOfExtendedAttribute:%@ ofItemAtPath:%@ position:%lld", name,
              ofItemAtPath, position);
    }
    if (CacheLayout::isRootPath(ofItemAtPath)) return Errno{ENODATA};
    std::string attributeFile;
    {
        const auto lock = store_.beginReadStorage();
        const auto file = store_.fileWithPath(ofItemAtPath);
        if (name == kFileStatusAttribute) {
            const bool ignored = CacheLayout::isPathIgnored(ofItemAtPath, file && !file->IsFile);
            return std::string(1, ignored ? '\0' : '\1');
        }
        if (file) {
            attributeFile = layout_.extendedAttrsPathForFile(*file);
        } else if (const auto share = store_.shareWithPath(ofItemAtPath)) {
            attributeFile = layout_.extendedAttrsPathForShare(*share);
        }
    }
    if (attributeFile.empty() || name == kQuarantineAttribute) return Errno{ENODATA};
    auto attributes = readExtendedAttributes(attributeFile);
    const auto found = attributes.find(name);
    if (found == attributes.end()) return Errno{ENODATA};
    const auto start = static_cast<std::size_t>(std::max<std::int64_t>(position, 0));
    return start < found->second.size() ? found->second.substr(start) : std::string();
}

void TWFuseFileSystem::checkOpenedFiles() {
    const Date now = store_.clock().now();
    for (const auto& handle : TWFuseFileData::openedFiles()) {
        auto fileId = handle->takeQuietBurst(now, kQuietPeriod);
        if (!fileId) continue;
        background_.async([&store = store_, &mediator = mediator_, fileId = std::move(fileId)] {
            const auto lock = store.beginWriteStorage();
            const auto file = store.fileWithId(fileId.view());
            if (!file) return;
            if (file->LocallyUpdated.value_or(false) &&
                !CacheLayout::isPathIgnored(file->PublicName.view(), false)) {
                mediator.journalUpdate(file);
            }
            file->LocallyUpdated.reset();
            store.markChanged(*file);
        });
    }
}

std::string TWFuseFileSystem::openFlagsToString(int flags) {
    static constexpr const char* accessModes[] = {"O_RDONLY", "O_WRONLY", "O_RDWR", nullptr};
    static constexpr std::pair<int, const char*> names[] = {
        {O_NONBLOCK, "O_NONBLOCK"}, {O_APPEND, "O_APPEND"}, {O_CREAT, "O_CREAT"},
        {O_TRUNC, "O_TRUNC"},       {O_EXCL, "O_EXCL"},     {O_NOFOLLOW, "O_NOFOLLOW"},
        {O_CLOEXEC, "O_CLOEXEC"},
    };
    std::string text;
    const auto append = [&text](const char* name) {
        if (!text.empty()) text += " | ";
        text += name;
    };
    if (const auto* mode = accessModes[flags & O_ACCMODE]) append(mode);
    for (const auto& [flag, name] : names) {
        if (flags & flag) append(name);
    }
    return text;
}

}  // namespace tarnwell
