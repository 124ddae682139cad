#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "util/Date.h"

namespace tarnwell {

/// Writes a binary property list from the leaves up, without ever holding it: a million records go through a
/// buffer of a quarter megabyte and some 10 bytes of memory per record.
///
///     header | objects, each before the container that names it | offset of each object | trailer
///
/// Every value that is written gets a reference; containers are made of references; finish() names the
/// outermost one. Numbers, dates and short texts that were written a moment ago are referred to instead of
/// written again.
///
/// One thread. A failed write is kept: later calls do nothing and finish() returns it.
class BinaryPropertyListWriter {
  public:
    using Reference = std::uint32_t;
    /// Takes the next bytes of the file; 0 or an errno value.
    using Sink = std::function<int(std::string_view bytes)>;

    /// `maxObjects`: no more values than that will be written. It decides the size of the references.
    BinaryPropertyListWriter(Sink sink, std::uint64_t maxObjects);

    Reference boolean(bool value);
    Reference integer(std::int64_t value);
    Reference real(double value);
    Reference date(Date value);
    /// UTF-8; a byte that belongs to no character is written as U+FFFD.
    Reference text(std::string_view value);
    Reference data(std::string_view bytes);
    Reference array(std::span<const Reference> elements);
    /// REQUIRES: as many values as keys.
    Reference dictionary(std::span<const Reference> keys, std::span<const Reference> values);

    /// Ends the file. 0, or the errno value of the first failure: the sink's own, or EOVERFLOW for too many
    /// objects.
    [[nodiscard]] int finish(Reference top);

  private:
    /// A value of 64 bits or a text that was written, by its hash: a later one with the same slot takes its
    /// place.
    struct RecentNumber {
        std::uint64_t bits = 0;
        std::uint8_t marker = 0;
        Reference reference = 0;
    };
    struct RecentText {
        std::string text;
        std::size_t hash = 0;  ///< spares looking at the text
        std::optional<Reference> reference;
    };

    Reference begin();
    void end();
    Reference number(std::uint8_t marker, std::uint64_t bits, unsigned bytes);
    void writeText(std::string_view value);
    void header(std::uint8_t kind, std::uint64_t count);
    void bigEndian(std::uint64_t value, unsigned bytes);
    char* room(std::size_t bytes);
    void references(std::span<const Reference> list);
    void put(std::string_view bytes);
    void flush();

    Sink sink_;
    std::uint64_t maxObjects_;
    unsigned referenceSize_;
    int error_ = 0;
    std::unique_ptr<char[]> buffer_;
    std::size_t used_ = 0;           ///< of the buffer
    std::uint64_t offset_ = 0;       ///< bytes written or buffered
    std::uint64_t objectStart_ = 0;  ///< of the object in progress
    std::uint64_t objects_ = 0;
    std::string sizes_;  ///< of each object, seven bits a byte: the offset table in a tenth of its size
    std::vector<RecentNumber> recentNumbers_;
    std::vector<RecentText> recentTexts_;
    Reference booleans_[2] = {};
    bool booleanWritten_[2] = {};
};

/// Appends to `out`.
BinaryPropertyListWriter::Sink stringSink(std::string& out);
/// Writes to an open descriptor, which stays the caller's.
BinaryPropertyListWriter::Sink descriptorSink(int descriptor);

}  // namespace tarnwell
