#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "store/TWVirtualFile.h"

namespace tarnwell {

/// The records of each share, and when they changed last: what a save walks over, a few records at a time,
/// and what tells it which shares it may leave alone.
///
/// A change is numbered by one counter for all shares, so that a share that went and came back never looks
/// unchanged. Adding and removing take constant time; 12 bytes per record. Guarded by the store's lock.
class ShareFiles {
  public:
    /// One walk over the records of a share, a few at a time, while they change.
    class Walk {
      public:
        explicit Walk(std::string shareId) : shareId_(std::move(shareId)) {}

      private:
        friend class ShareFiles;
        std::string shareId_;
        std::size_t at_ = std::numeric_limits<std::size_t>::max();  ///< what stands before is not copied yet
        std::vector<TWVirtualFile> removed_;                        ///< went before the walk came to them
    };

    /// REQUIRES: `file` stands in no list; its `ShareId` stays as it is while it does.
    void add(TWVirtualFile& file);
    /// REQUIRES: `file` stands here.
    void remove(const TWVirtualFile& file);
    /// Puts `file`, of the same share, in the place of `old`.
    void replace(const TWVirtualFile& old, TWVirtualFile& file);
    /// Something that is saved changed in a record of the share.
    void touch(std::string_view shareId);

    /// Number of the last change of the share; 0: it never had a record.
    [[nodiscard]] std::uint64_t generation(std::string_view shareId) const;
    [[nodiscard]] std::size_t count(std::string_view shareId) const;
    [[nodiscard]] std::vector<TWVirtualFile*> all(std::string_view shareId) const;

    /// One walk at a time. Between the calls the share may change; `walk` lives until endWalk().
    void beginWalk(Walk& walk) const { walk_ = &walk; }
    void endWalk() const { walk_ = nullptr; }
    /// Copies the next records, about `most`; nothing at the end. Every record that was there at the
    /// beginning is copied at least once: as it was when it went, when it went on the way. A record that is
    /// copied again is so in its newer form.
    void copyNext(Walk& walk, std::size_t most, std::vector<TWVirtualFile>& out) const;

  private:
    struct Share {
        std::vector<TWVirtualFile*> files;
        std::uint64_t generation = 0;
    };
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(const SharedString& id) const {
            return std::hash<std::string_view>{}(id.view());
        }
        std::size_t operator()(std::string_view id) const { return std::hash<std::string_view>{}(id); }
    };
    struct Equal {
        using is_transparent = void;
        static std::string_view view(const SharedString& id) { return id.view(); }
        static std::string_view view(std::string_view id) { return id; }
        template <class A, class B>
        bool operator()(const A& a, const B& b) const {
            return view(a) == view(b);
        }
    };

    Share& shareOf(const TWVirtualFile& file);
    [[nodiscard]] const Share* find(std::string_view shareId) const;

    // An entry stays when its last record goes: the number of that change is still wanted.
    std::unordered_map<SharedString, Share, Hash, Equal> shares_;
    // The share that changed last: changes come in long runs of one share. Points into shares_.
    SharedString lastId_;
    Share* last_ = nullptr;
    std::uint64_t changes_ = 0;
    mutable Walk* walk_ = nullptr;  // borrowed; a walk changes nothing here
};

}  // namespace tarnwell
