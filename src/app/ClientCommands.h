#pragma once

#include <optional>
#include <string>

namespace tarnwell {

struct Foundation;

/// What the commands of the command line do. A running client does it itself, asked over its command socket:
/// it alone then writes credentials. Without one, log-in, log-out and the settings work on the keychain and
/// the settings file.
///
/// Each returns the exit status and has said on standard error what went wrong.
class ClientCommands {
  public:
    explicit ClientCommands(Foundation& foundation) : foundation_(foundation) {}

    /// Both refuse where unsent changes would be lost, unless `discards`.
    int login(const std::string& user, const std::string& password, bool discards);
    int logout(bool discards);
    int settingsList();
    int settingsGet(const std::string& key);
    int settingsSet(const std::string& key, const std::string& value);
    int settingsUnset(const std::string& key);
    int status(bool json);
    /// Returns when the client has begun.
    int refresh();
    int quit();
    /// Sends a text command; without ":" one is added.
    int send(const std::string& text);

  private:
    enum class WithoutClient { kFail, kGoOn };
    /// Sends a request and prints its answer. None: no client runs and `otherwise` is kGoOn.
    std::optional<int> request(const std::string& text, WithoutClient otherwise,
                               std::string* answer = nullptr);
    int changedSettings(bool stored);
    /// For the time when no client runs. Holds off a start while `work` runs.
    template <class Work>
    int withoutClient(Work work);

    Foundation& foundation_;
};

/// The password for `user`: from the first line of standard input, or typed at the terminal without being
/// shown. None after a message on standard error.
std::optional<std::string> readPassword(const std::string& user, bool fromStandardInput);

}  // namespace tarnwell
