#pragma once

#include <exception>
#include <utility>

namespace tarnwell {

/// Logs what a task let out: the end of every thread's, callback's and queue's call chain.
void logEscapedException(const char* where) noexcept;

/// Runs `task`; an exception that escapes it is logged under the name `where` and dropped.
template <class Task>
void runGuarded(const char* where, Task&& task) noexcept {
    try {
        std::forward<Task>(task)();
    } catch (...) {
        logEscapedException(where);
    }
}

/// Gives the calling thread a name (15 characters count) that shows in process lists and crash reports.
void nameThisThread(const char* name) noexcept;

}  // namespace tarnwell
