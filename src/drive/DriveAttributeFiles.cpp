// Extended attributes of the items on the drive. They stay on this machine and are never journalled.

#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>

#include "drive/ExtendedAttributes.h"
#include "drive/TWFuseFileSystem.h"
#include "util/TWLogger.h"

namespace tarnwell {
namespace {

/// What the kernel lets through is far below.
constexpr std::size_t kMaxValue = std::size_t{1} << 24U;

}  // namespace

/// Empty when there is no such item.
std::string TWFuseFileSystem::attributeFileOfItemAtPath(const std::string& path) const {
    const auto lock = store_.beginReadStorage();
    if (const auto file = visibleFileWithPath(path)) return layout_.extendedAttrsPathForFile(*file);
    if (const auto share = store_.shareWithPath(path)) return layout_.extendedAttrsPathForShare(*share);
    return {};
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

ErrnoOr<Done> TWFuseFileSystem::setExtendedAttribute(const std::string& name, const std::string& ofItemAtPath,
                                                     std::string_view value, std::int64_t position,
                                                     int options) {
    TWLog(kLogFuse,
          "TWFuseFileSystem: setExtendedAttribute:%@ ofItemAtPath:%@ value length:%lld position:%lld "
          "options:%d",
          name, ofItemAtPath, value.size(), position, options);
    const auto attributeFile = attributeFileOfItemAtPath(ofItemAtPath);
    if (attributeFile.empty() || position < 0) return Errno{EINVAL};
    if (static_cast<std::uint64_t>(position) + value.size() > kMaxValue) return Errno{E2BIG};
    std::lock_guard lock(attributeFiles_);
    auto attributes = readExtendedAttributes(attributeFile);
    const auto found = attributes.find(name);
    if ((options & XATTR_CREATE) != 0 && found != attributes.end()) return Errno{EEXIST};
    if ((options & XATTR_REPLACE) != 0 && found == attributes.end()) return Errno{ENODATA};
    if (name == kQuarantineAttribute) return Done{};
    auto& stored = attributes[name];
    if ((options & XATTR_REPLACE) != 0) stored.clear();
    const auto start = static_cast<std::size_t>(position);
    stored.resize(std::max(stored.size(), start + value.size()));
    std::copy(value.begin(), value.end(), stored.begin() + static_cast<std::ptrdiff_t>(start));
    if (const int error = writeExtendedAttributes(attributeFile, attributes)) return Errno{error};
    return Done{};
}

ErrnoOr<Done> TWFuseFileSystem::removeExtendedAttribute(const std::string& name,
                                                        const std::string& ofItemAtPath) {
    TWLog(kLogFuse, "TWFuseFileSystem: removeExtendedAttribute:%@ ofItemAtPath:%@", name, ofItemAtPath);
    const auto attributeFile = attributeFileOfItemAtPath(ofItemAtPath);
    if (attributeFile.empty()) return Errno{ENODATA};
    std::lock_guard lock(attributeFiles_);
    auto attributes = readExtendedAttributes(attributeFile);
    if (attributes.erase(name) == 0) return Errno{ENODATA};
    if (const int error = writeExtendedAttributes(attributeFile, attributes)) return Errno{error};
    return Done{};
}

}  // namespace tarnwell
