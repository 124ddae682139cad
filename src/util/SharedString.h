#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace tarnwell {

/// An optional, immutable UTF-8 text in one pointer, shared between its copies.
///
/// File records come by the million and name each other: a child's `ParrentId` is its folder's
/// `InternalName`, every record of a share carries the same `ShareId`. A std::optional<std::string> would
/// cost 40 bytes and a heap block in each place; a SharedString costs 8 bytes, and copies share one block. It
/// reads like the optional it stands for: has_value(), *text, value_or(), reset().
///
/// Threads: as std::shared_ptr<const std::string>; copies may be used on any thread, one object is not
/// locked.
class SharedString {
  public:
    SharedString() noexcept = default;
    SharedString(std::nullopt_t) noexcept {}                            // NOLINT(google-explicit-constructor)
    SharedString(std::string_view text) : block_(Block::make(text)) {}  // NOLINT(google-explicit-constructor)
    SharedString(const std::string& text) : SharedString(std::string_view(text)) {}  // NOLINT
    SharedString(const char* text) : SharedString(std::string_view(text)) {}         // NOLINT
    SharedString(const SharedString& other) noexcept : block_(other.block_) { retain(); }
    SharedString(SharedString&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
    SharedString& operator=(SharedString other) noexcept {
        std::swap(block_, other.block_);
        return *this;
    }
    ~SharedString() { release(); }

    [[nodiscard]] bool has_value() const noexcept { return block_ != nullptr; }
    explicit operator bool() const noexcept { return has_value(); }
    void reset() noexcept {
        release();
        block_ = nullptr;
    }

    /// The text; empty when absent. Valid as long as this object (or a copy) lives unchanged.
    [[nodiscard]] std::string_view view() const noexcept {
        return block_ ? std::string_view(block_->text(), block_->size) : std::string_view();
    }
    /// REQUIRES: has_value().
    std::string_view operator*() const noexcept { return view(); }
    [[nodiscard]] std::string_view value_or(std::string_view other) const noexcept {
        return block_ ? view() : other;
    }
    [[nodiscard]] std::string str() const { return std::string(view()); }
    /// Absent or of no characters.
    [[nodiscard]] bool empty() const noexcept { return !block_ || block_->size == 0; }

    /// Absent equals absent only; an empty text is not an absent one.
    friend bool operator==(const SharedString& a, const SharedString& b) noexcept {
        return a.block_ == b.block_ || (a.block_ && b.block_ && a.view() == b.view());
    }
    friend bool operator==(const SharedString& a, std::string_view b) noexcept {
        return a.block_ && a.view() == b;
    }
    friend bool operator==(const SharedString& a, const char* b) noexcept { return a == std::string_view(b); }
    friend bool operator==(const SharedString& a, const std::string& b) noexcept {
        return a == std::string_view(b);
    }
    friend std::ostream& operator<<(std::ostream& out, const SharedString& text) {
        return text ? out << text.view() : out << "(absent)";
    }

  private:
    struct Block {
        std::atomic<std::uint32_t> references;
        std::uint32_t size;

        [[nodiscard]] const char* text() const noexcept { return reinterpret_cast<const char*>(this + 1); }
        static Block* make(std::string_view text) {
            if (text.size() > UINT32_MAX) throw std::length_error("SharedString");
            void* memory = ::operator new(sizeof(Block) + text.size());
            auto* block = new (memory) Block{{1}, static_cast<std::uint32_t>(text.size())};
            if (!text.empty())
                std::memcpy(static_cast<char*>(memory) + sizeof(Block), text.data(), text.size());
            return block;
        }
    };

    void retain() const noexcept {
        if (block_) block_->references.fetch_add(1, std::memory_order_relaxed);
    }
    void release() noexcept {
        if (block_ && block_->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            block_->~Block();
            ::operator delete(block_);
        }
    }

    Block* block_ = nullptr;
};

}  // namespace tarnwell

template <>
struct std::hash<tarnwell::SharedString> {
    std::size_t operator()(const tarnwell::SharedString& text) const noexcept {
        return std::hash<std::string_view>{}(text.view());
    }
};
