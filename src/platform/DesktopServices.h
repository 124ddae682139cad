#pragma once

#include <functional>
#include <string>

#include "platform/UrlOpener.h"

namespace tarnwell {

/// What the desktop does for its programs. Main thread only; nothing blocks, failures are logged.
class DesktopServices : public UrlOpener {
  public:
    /// Opens an "https:", "http:" or "mailto:" address in the user's program for it. Others are refused:
    /// false.
    bool openUrl(const std::string& url) override = 0;
    /// Shows the folder in the file browser.
    virtual void showFolder(const std::string& path) = 0;
    virtual void deliverNotification(const std::string& title, const std::string& text) = 0;
    /// Tells every program of the session that something happened: a signal of this name.
    virtual void postDistributedNotification(const std::string& name) = 0;
};

/// The general clipboard. Main thread only.
class Clipboard {
  public:
    virtual ~Clipboard() = default;
    /// Replaces what is there by a link: as a URL, as rich text that carries the link, and as plain text.
    /// `done` hears later whether it is there; false where there is no display.
    virtual void setLink(const std::string& link, std::function<void(bool succeeded)> done) = 0;
};

}  // namespace tarnwell
