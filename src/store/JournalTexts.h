#pragma once

#include <functional>
#include <string>
#include <vector>

namespace tarnwell {

/// The journal as the store's files keep it: one JSON text per entry, in journal order.
class JournalTexts {
  public:
    virtual ~JournalTexts() = default;
    /// REQUIRES LOCK.
    [[nodiscard]] virtual std::vector<std::string> journalTexts() const = 0;
    /// journalTexts() as of now, encoded when the result is called, which needs no lock: a long journal must
    /// not hold up the drive. REQUIRES LOCK.
    [[nodiscard]] virtual std::function<std::vector<std::string>()> journalSnapshot() const {
        return [texts = journalTexts()] { return texts; };
    }
    /// Puts the journal in the place of the present one. A text that is none is logged and left out.
    /// REQUIRES LOCK.
    virtual void loadJournals(const std::vector<std::string>& texts) = 0;
};

}  // namespace tarnwell
