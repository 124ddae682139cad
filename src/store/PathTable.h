#pragma once

#include <boost/unordered/unordered_flat_set.hpp>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string_view>
#include <unordered_map>

#include "store/TWVirtualFile.h"

namespace tarnwell {

/// The table `filesByPath`: finds a record by its drive path, without regard to letter case and Unicode form.
///
/// It keeps no path text: an entry is the hash of the path key beside the record, and equality folds the
/// record's `FullPath`. Two records may have the same path key (the service sees "a" and "A" as two names for
/// a moment, and orphans of many folders share one place). The table then shows the latest; the others wait
/// beside it and step forward when it goes, so that no record is lost from view.
///
/// INVARIANT: while a record stands here its `FullPath` and `InternalName` do not change. Guarded by the
/// store's lock.
class PathTable {
  public:
    /// REQUIRES: `FullPath` is not empty and the record does not stand here.
    void add(const TWVirtualFilePtr& file);
    /// Removes the very object; nothing when it does not stand here.
    void remove(const TWVirtualFile& file);
    [[nodiscard]] TWVirtualFilePtr find(std::string_view path) const;
    void reserve(std::size_t records) { entries_.reserve(records); }
    /// Distinct path keys.
    [[nodiscard]] std::size_t size() const { return entries_.size(); }

  private:
    struct Entry {
        std::uint64_t hash;
        // Exchanged only for a record of the same key. The path's block stands here as well, so that a
        // look-up in a large table waits for the text and the record at the same time, not for one after the
        // other.
        mutable TWVirtualFilePtr file;
        mutable SharedString path;
    };
    /// A path key that is asked for.
    struct Probe {
        std::uint64_t hash;
        std::string_view key;
    };
    struct Hash {
        using is_transparent = void;
        using is_avalanching = void;
        std::size_t operator()(const Entry& entry) const { return entry.hash; }
        std::size_t operator()(const Probe& probe) const { return probe.hash; }
    };
    struct Equal {
        using is_transparent = void;
        bool operator()(const Entry& a, const Entry& b) const;
        bool operator()(const Probe& probe, const Entry& entry) const;
        bool operator()(const Entry& entry, const Probe& probe) const { return (*this)(probe, entry); }
    };
    struct ById {
        bool operator()(const TWVirtualFilePtr& a, const TWVirtualFilePtr& b) const {
            return a->InternalName.view() < b->InternalName.view();
        }
    };
    using Waiting = std::unordered_map<std::uint64_t, std::set<TWVirtualFilePtr, ById>>;

    /// The hash and key of `path`; the key lives until the next call on this thread.
    static Probe probe(std::string_view path);
    /// Takes one record of this key out of those that wait.
    TWVirtualFilePtr takeWaiting(const Probe& probe);

    boost::unordered_flat_set<Entry, Hash, Equal> entries_;
    Waiting waiting_;  // by hash of the key
};

}  // namespace tarnwell
