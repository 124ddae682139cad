#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarnwell {

/// Which version the bytes of a cache file are. Stored with the file itself, as an extended attribute, so
/// that bytes and their version cannot be told apart by a crash, a rename or an exchange
/// (docs/formats/store.md).
///
/// - `clean`: exactly the contents that are named `UploadName`, as the service has them.
/// - `unsynced`: the same, but a loss of power may still damage them: counts in this run of the program only.
/// - `unsent`: exactly the contents that are named `UploadName`, made here; the service may not have them.
/// - `edited`: what the user made of these contents since; they have no name of their own yet.
///
/// A cache file without a version proves nothing and is not used.
///
/// The attribute holds a digest of the name: short enough for the inode, so that setting it needs no block of
/// its own, also on a full disk.
///
/// Threads: any.
class ContentVersion {
  public:
    /// Short: what fits into the inode needs no block of its own.
    static constexpr const char* kAttribute = "user.tw";

    [[nodiscard]] static ContentVersion clean(std::string_view uploadName);
    [[nodiscard]] static ContentVersion unsynced(std::string_view uploadName);
    [[nodiscard]] static ContentVersion unsent(std::string_view uploadName);
    /// `uploadName`: of the contents that the edit began with; empty for a new file.
    [[nodiscard]] static ContentVersion edited(std::string_view uploadName);

    [[nodiscard]] bool isEdited() const { return kind_ == Kind::kEdited; }
    /// What may exist nowhere else: `edited` or `unsent`.
    [[nodiscard]] bool isOwn() const { return kind_ == Kind::kEdited || kind_ == Kind::kUnsent; }
    /// Whether this is, or began as, the contents of that name.
    [[nodiscard]] bool isOf(std::string_view uploadName) const;

    /// 0 or errno. The file's owner calls it before the file takes its name in the cache.
    [[nodiscard]] int set(int descriptor) const;
    [[nodiscard]] int set(const std::string& path) const;
    /// None: there is no such file, or it carries no version.
    [[nodiscard]] static std::optional<ContentVersion> of(int descriptor);
    [[nodiscard]] static std::optional<ContentVersion> of(const std::string& path);

    friend bool operator==(const ContentVersion&, const ContentVersion&) = default;

  private:
    enum class Kind : char { kClean = 'c', kUnsynced = 'r', kUnsent = 'u', kEdited = 'e' };

    ContentVersion(Kind kind, std::string digest) : kind_(kind), digest_(std::move(digest)) {}
    [[nodiscard]] std::string text() const;
    [[nodiscard]] static std::optional<ContentVersion> parse(std::string_view text);
    [[nodiscard]] static std::string digestOf(Kind kind, std::string_view uploadName);

    Kind kind_;
    std::string digest_;  ///< 32 hexadecimal digits
};

}  // namespace tarnwell
