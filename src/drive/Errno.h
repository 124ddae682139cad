#pragma once

#include <utility>
#include <variant>

namespace tarnwell {

/// The reason of a failed call: a POSIX error code, never 0.
struct Errno {
    int code;
    friend bool operator==(Errno, Errno) = default;
};

/// "It worked, and there is nothing to tell."
struct Done {
    friend bool operator==(Done, Done) = default;
};

/// A value, or the POSIX error that stands in its place.
template <class T>
class [[nodiscard]] ErrnoOr {
  public:
    ErrnoOr(T value) : value_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
    ErrnoOr(Errno error) : value_(error) {}         // NOLINT(google-explicit-constructor)

    [[nodiscard]] bool ok() const { return std::holds_alternative<T>(value_); }
    explicit operator bool() const { return ok(); }
    /// 0 when there is a value.
    [[nodiscard]] int error() const {
        const auto* error = std::get_if<Errno>(&value_);
        return error ? error->code : 0;
    }

    /// REQUIRES (all): ok().
    T& operator*() & { return std::get<T>(value_); }
    const T& operator*() const& { return std::get<T>(value_); }
    T&& operator*() && { return std::get<T>(std::move(value_)); }
    T* operator->() { return &std::get<T>(value_); }
    const T* operator->() const { return &std::get<T>(value_); }

  private:
    std::variant<Errno, T> value_;
};

}  // namespace tarnwell
