#pragma once

#include <unistd.h>

#include <utility>

namespace tarnwell::service {

/// Owns one file descriptor; -1 is none.
class FileDescriptor {
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int value) : value_(value) {}
    FileDescriptor(FileDescriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(value_, other.value_);
        return *this;
    }
    ~FileDescriptor() {
        if (value_ >= 0) ::close(value_);
    }
    explicit operator bool() const { return value_ >= 0; }
    [[nodiscard]] int get() const { return value_; }
    int release() { return std::exchange(value_, -1); }

  private:
    int value_ = -1;
};

}  // namespace tarnwell::service
