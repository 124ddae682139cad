#include "store/LocalJournal.h"

#include <array>

namespace tarnwell {

std::string_view journalEventName(std::int32_t type) {
    // By value of the enum LocalJournalType.
    static constexpr std::array<std::string_view, 13> kNames = {
        "[Create]",          "[Delete]",       "[Rename]",         "[Update]",
        "[FileAttributes]",  "[CatchUp]",      "[Duplicate]",      "[ConflictNewVersion]",
        "[FileNotPressent]", "[IgnoreDelete]", "[RenameConflict]", "[Recover]",
        "[Restore]"};
    if (type < 0 || static_cast<std::size_t>(type) >= kNames.size()) return "[Unknown?]";
    return kNames[static_cast<std::size_t>(type)];
}

}  // namespace tarnwell
