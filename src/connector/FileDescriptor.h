#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string_view>
#include <utility>

namespace tarnwell {

/// Owns one open descriptor, or none (as after a failed open).
class FileDescriptor {
  public:
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&&) = delete;
    ~FileDescriptor() {
        if (descriptor_ >= 0) ::close(descriptor_);
    }

    [[nodiscard]] explicit operator bool() const { return descriptor_ >= 0; }
    [[nodiscard]] int get() const { return descriptor_; }

    /// All of `bytes`, or false with errno set.
    [[nodiscard]] bool writeAt(std::string_view bytes, std::int64_t position) const {
        while (!bytes.empty()) {
            const auto count = ::pwrite(descriptor_, bytes.data(), bytes.size(), position);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) return false;
            bytes.remove_prefix(static_cast<std::size_t>(count));
            position += count;
        }
        return true;
    }

  private:
    int descriptor_;
};

}  // namespace tarnwell
