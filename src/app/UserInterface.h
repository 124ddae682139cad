#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tarnwell {

/// A question or a message to the user.
struct Alert {
    std::string title;
    std::string text;
    std::vector<std::string> buttons;  ///< at least one
    std::size_t safeButton = 0;        ///< the default; chosen when there is nobody to ask
};

/// What the application wants from whoever sits in front of it. Main thread only; nothing here blocks.
class UserInterface {
  public:
    virtual ~UserInterface() = default;
    /// Calls `chosen` once with the index of the button, at once or later, on the main thread.
    virtual void showAlert(const Alert& alert, std::function<void(std::size_t button)> chosen) = 0;
    /// Credentials are missing or are refused: the user is to enter them.
    virtual void askForLogin() = 0;
};

/// The user interface of a client without windows: a log line, the same on standard error, and the safe
/// answer.
class ConsoleUserInterface final : public UserInterface {
  public:
    void showAlert(const Alert& alert, std::function<void(std::size_t button)> chosen) override;
    void askForLogin() override;
};

}  // namespace tarnwell
