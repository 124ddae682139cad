#pragma once

#include <memory>

#include "platform/DesktopServices.h"

namespace tarnwell {

class SessionBus;

/// The desktop's services over the session bus: the portal opens addresses, the file browser shows folders,
/// the notification service notifies. Where nobody on the bus does, `xdg-open` opens.
class DBusDesktopServices final : public DesktopServices {
  public:
    /// `applicationName` stands on the notifications.
    DBusDesktopServices(SessionBus& bus, std::string applicationName);
    ~DBusDesktopServices() override;

    bool openUrl(const std::string& url) override;
    void showFolder(const std::string& path) override;
    void deliverNotification(const std::string& title, const std::string& text) override;
    void postDistributedNotification(const std::string& name) override;

  private:
    struct State;
    SessionBus& bus_;
    const std::string applicationName_;
    std::unique_ptr<State> state_;
};

}  // namespace tarnwell
