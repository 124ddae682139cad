#pragma once

#include <filesystem>

#include "service/ContentStore.h"

namespace tarnwell::service {

/// Contents as files: `<folder>/blobs/3f/<upload name>`, the sub-folder being a hash of the name. They are
/// written as
/// `<folder>/incoming/<upload name>.<random>` and renamed when complete; those that come in pieces over
/// several requests as `<folder>/incoming/<key>.part`. Several processes may share the
/// folder.
class FileContentStore final : public ContentStore {
  public:
    /// Makes the folders (mode 0700). Throws ServiceError when it cannot.
    explicit FileContentStore(const std::filesystem::path& folder);

    std::unique_ptr<ContentReader> open(std::string_view uploadName) override;
    std::unique_ptr<ContentWriter> create(std::string_view uploadName) override;
    std::unique_ptr<PartialContents> partial(std::string_view key) override;
    void remove(std::string_view uploadName) override;
    void sync() override;
    void dropUnfinished(std::chrono::seconds age) override;
    std::vector<std::string> namesOlderThan(std::chrono::seconds age, unsigned slice) override;

  private:
    [[nodiscard]] std::filesystem::path pathOf(std::string_view uploadName) const;

    const std::filesystem::path blobs_;
    const std::filesystem::path incoming_;
};

}  // namespace tarnwell::service
