#include "platform/GuardedTask.h"

#include <pthread.h>

#include <string>

#include "util/TWLogger.h"

namespace tarnwell {

void logEscapedException(const char* where) noexcept {
    try {
        try {
            throw;
        } catch (const std::exception& error) {
            TWLog(kLogMain, "Error! %@: unexpected exception: %@", where, error.what());
        } catch (...) {
            TWLog(kLogMain, "Error! %@: unexpected exception of unknown type", where);
        }
    } catch (...) {
        // Out of memory while logging: nothing is left to be done.
    }
}

void nameThisThread(const char* name) noexcept {
    char shortened[16] = {};
    for (std::size_t i = 0; i + 1 < sizeof shortened && name[i]; ++i)
        shortened[i] = name[i];
    ::pthread_setname_np(::pthread_self(), shortened);
}

}  // namespace tarnwell
