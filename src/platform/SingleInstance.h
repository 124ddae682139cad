#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <variant>

#include "platform/LocalSocket.h"

namespace tarnwell {

/// Keeps a second instance from starting: an exclusive lock on a file that holds the process id. The kernel
/// drops the lock when the process ends in whatever way, so a file left behind by a crash locks nobody out.
/// Move-only; the lock ends with the object.
class SingleInstance {
  public:
    /// Who holds the lock. `pid` is 0 when the holder has not written it yet; `executable` may be empty.
    struct Other {
        pid_t pid = 0;
        std::string executable;
    };
    struct Failure {
        int error = 0;  ///< errno: the file cannot be made or locked
    };

    /// Locks `path` (made with mode 0600; its folder exists), or tells why not.
    static std::variant<SingleInstance, Other, Failure> acquire(const std::string& path);

  private:
    explicit SingleInstance(OwnedDescriptor lock) : lock_(std::move(lock)) {}
    // The file stays behind: removing it could take it from under a process that is just locking it.
    OwnedDescriptor lock_;
};

}  // namespace tarnwell
