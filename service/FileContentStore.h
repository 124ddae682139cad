#pragma once

#include <filesystem>

#include "service/ContentStore.h"

namespace tarnwell::service {

/// Contents as files: `<folder>/blobs/3f/<upload name>`, the sub-folder (made and synced before anything
/// else) being a hash of the name. They are written as `<folder>/incoming/<upload name>.<random>` and renamed
/// when complete; those that come in pieces over several requests as `<folder>/incoming/<key>.part`.
/// `<folder>/unclaimed` has what was set aside. Several processes may share the folder: holds are shared
/// locks of `<folder>/holds`, a sweep has the exclusive one.
class FileContentStore final : public ContentStore {
  public:
    /// Makes the folders (mode 0700). Throws ServiceError when it cannot.
    explicit FileContentStore(const std::filesystem::path& folder);

    std::unique_ptr<ContentReader> open(std::string_view uploadName) override;
    std::unique_ptr<ContentWriter> create(std::string_view uploadName) override;
    std::unique_ptr<PartialContents> partial(std::string_view key) override;
    void remove(std::string_view uploadName) override;
    std::unique_ptr<ContentHold> hold() override;
    std::optional<std::int64_t> sizeOf(std::string_view uploadName) override;
    std::int64_t freeBytes() override;
    void dropUnfinished(std::chrono::seconds age) override;
    std::vector<std::string> namesOlderThan(std::chrono::seconds age, unsigned slice) override;
    int sweep(std::chrono::seconds age, unsigned slice, const StraysOf& straysOf) override;
    void setAside(std::string_view uploadName) override;

  private:
    [[nodiscard]] std::filesystem::path pathOf(std::string_view uploadName) const;

    const std::filesystem::path folder_;
    const std::filesystem::path blobs_;
    const std::filesystem::path incoming_;
};

}  // namespace tarnwell::service
