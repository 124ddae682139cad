#pragma once

namespace tarnwell::service::testing {

/// What fsync, fdatasync and syncfs do in this process, for the scope of the object: real ones take most of a
/// test's time and never fail.
class TestDisk {
  public:
    enum class Sync {
        skip,  ///< returns at once
        fail   ///< EIO
    };
    explicit TestDisk(Sync sync);
    ~TestDisk();
    TestDisk(const TestDisk&) = delete;
    TestDisk& operator=(const TestDisk&) = delete;
};

}  // namespace tarnwell::service::testing
