#pragma once

#include <string>

namespace tarnwell {

/// Opens addresses in the user's default programs. Main thread.
class UrlOpener {
  public:
    virtual ~UrlOpener() = default;
    /// False when nothing could be started. Does not wait for what it starts.
    virtual bool openUrl(const std::string& url) = 0;
};

}  // namespace tarnwell
