#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "store/TWVirtualFile.h"

namespace tarnwell {

/// One entry of the journal as the store's files keep it: a JSON text, and the number that orders it, which
/// only the change log knows.
struct JournalText {
    std::uint64_t order = 0;
    std::string text;

    bool operator==(const JournalText&) const = default;
};

/// The journal as persistence sees it. REQUIRES LOCK throughout, the store's.
class JournalTexts {
  public:
    virtual ~JournalTexts() = default;
    /// The journal as of now, in order; encoded when the result is called, which needs no lock: a long
    /// journal must not hold up the drive.
    [[nodiscard]] virtual std::function<std::vector<JournalText>()> journalSnapshot() const = 0;
    /// One entry; none when there is no such number.
    [[nodiscard]] virtual std::optional<std::string> journalText(std::uint64_t order) const = 0;
    /// Puts the journal in the place of the present one; numbers ascend. A text that is none is logged and
    /// left out. Returns how many there are now.
    virtual std::size_t loadJournals(const std::vector<JournalText>& texts) = 0;
    /// The store is loaded: takes up what was under way when the last run ended. `changed`: files that are
    /// marked as changed by the user.
    virtual void recover(const std::vector<TWVirtualFilePtr>& /*changed*/) {}
};

}  // namespace tarnwell
