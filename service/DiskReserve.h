#pragma once

#include <cstdint>
#include <filesystem>

namespace tarnwell::service {

/// A file that occupies room on the disk for the database: when the disk is full its blocks are freed, so
/// that removing, moving and making folders go on, and the database can be opened at all. Uploads leave as
/// much room free while the file is empty.
///
/// `<data folder>/reserve`, at most 32 MiB and a sixteenth of the disk. Several processes share it. Any
/// thread. A file system that cannot allocate blocks ahead has no reserve.
class DiskReserve {
  public:
    explicit DiskReserve(const std::filesystem::path& folder);

    /// Frees a part of the reserve when the disk is nearly full, and takes it again when there is room.
    /// Cheap: before every write transaction.
    void adjust() noexcept;
    /// What the reserve lacks of its size: uploads have to leave that much.
    [[nodiscard]] std::int64_t missing() const noexcept;
    /// Throws ServiceError when there is not even room to open the database.
    void needRoomToOpen() const;

  private:
    struct Disk {
        std::int64_t free;
        std::int64_t wanted;
        std::int64_t held;
    };
    [[nodiscard]] Disk disk() const noexcept;

    const std::filesystem::path path_;
};

}  // namespace tarnwell::service
