#pragma once

#include <string>

#include "store/UnsentContents.h"
#include "util/Format.h"

/// What the user is told of unsent changes that a command would drop.
namespace tarnwell {

inline std::string unsentNumbers(const UnsentContents::Count& unsent) {
    std::string text;
    if (unsent.changes > 0) text = format("%d changes that were not sent yet", unsent.changes);
    if (unsent.localFiles > 0) {
        text += (text.empty() ? "" : " and ") +
                format("%d files with names that are never sent", unsent.localFiles);
    }
    return text;
}

/// REQUIRES: not empty.
inline std::string unsentRefusal(const UnsentContents::Count& unsent) {
    return unsentNumbers(unsent) + " would be lost. Wait until they are sent, or use --discard.";
}

inline std::string unsentDropped(const UnsentContents::Count& unsent) {
    return unsent.empty() ? "" : unsentNumbers(unsent) + " were dropped.\n";
}

}  // namespace tarnwell
