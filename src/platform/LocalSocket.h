#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

/// Unix stream sockets addressed by path, for the command socket and its clients.
namespace tarnwell {

/// Longest text that one connection may carry, either way.
inline constexpr std::size_t kLocalTextLimit = 1u << 20;
inline constexpr std::string_view kLocalSocketInUse = "another program listens there";

/// Owns one descriptor. Move-only.
class OwnedDescriptor {
  public:
    OwnedDescriptor() = default;
    explicit OwnedDescriptor(int descriptor) : descriptor_(descriptor) {}
    OwnedDescriptor(OwnedDescriptor&& other) noexcept : descriptor_(other.release()) {}
    OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept;
    ~OwnedDescriptor() { reset(); }

    [[nodiscard]] int get() const { return descriptor_; }
    [[nodiscard]] explicit operator bool() const { return descriptor_ >= 0; }
    int release() noexcept;
    void reset() noexcept;

  private:
    int descriptor_ = -1;
};

/// A listening socket at `path`, non-blocking, usable by this user only (mode 0600 from the moment it
/// exists). A socket at `path` that nobody listens at is removed; one that answers is left alone, and the
/// error is kLocalSocketInUse. The path may be longer than a socket address holds: it is then reached through
/// a descriptor of its folder. Empty on failure, with the reason in `error`.
OwnedDescriptor listenLocal(const std::string& path, std::string& error);

/// What came of sendLocalText().
struct LocalAnswer {
    bool connected = false;  ///< false: nobody listens at the path
    std::string error;       ///< empty: the text was sent and the answer read to its end
    std::string text;        ///< what the other side wrote before it closed; often nothing
};

/// Connects to `path`, sends `text`, closes its own direction and reads the answer to its end. Blocks, at
/// most for `deadline`. Any thread.
LocalAnswer sendLocalText(const std::string& path, std::string_view text, std::chrono::milliseconds deadline);

}  // namespace tarnwell
