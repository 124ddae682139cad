#include "app/ClientCommands.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <variant>

#include "app/CommandMessage.h"
#include "app/Foundation.h"
#include "app/StatusReport.h"
#include "app/StoredCredentials.h"
#include "app/UnsentTexts.h"
#include "platform/LocalSocket.h"
#include "platform/SingleInstance.h"

namespace tarnwell {

namespace {

/// A client that ends may have to finish work that must be whole.
constexpr std::chrono::seconds kQuitDeadline{120};
constexpr std::chrono::seconds kAnswerDeadline{30};

int failed(const std::string& message) {
    std::fprintf(stderr, "tarnwell: %s\n", message.c_str());
    return 1;
}

std::variant<SingleInstance, SingleInstance::Other, SingleInstance::Failure> lockAt(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
    return SingleInstance::acquire(path);
}

}  // namespace

std::optional<int> ClientCommands::request(const std::string& text, WithoutClient otherwise,
                                           std::string* answerText) {
    const auto deadline = text.starts_with("quit:") ? kQuitDeadline : kAnswerDeadline;
    const auto reply = sendLocalText(foundation_.commandSocketPath(), text, deadline);
    if (!reply.connected) {
        if (otherwise == WithoutClient::kGoOn) return std::nullopt;
        return failed("no client is running (" + foundation_.commandSocketPath() + ": " + reply.error + ")");
    }
    if (!reply.error.empty()) return failed("the client does not answer: " + reply.error);
    const auto answer = parseAnswer(reply.text);
    if (!answer) return failed("the client ended or did not understand the request");
    if (!answer->succeeded) return failed(answer->text);
    if (answerText) *answerText = answer->text;
    return 0;
}

template <class Work>
int ClientCommands::withoutClient(Work work) {
    const auto lock = lockAt(foundation_.lockPath());
    std::error_code error;
    const bool hasData = std::filesystem::is_directory(foundation_.layout.rootCachePath(), error);
    const auto dataLock = hasData ? lockAt(foundation_.dataLockPath()) : SingleInstance::Failure{};
    if (std::holds_alternative<SingleInstance::Other>(lock) ||
        std::holds_alternative<SingleInstance::Other>(dataLock)) {
        return failed("a client starts or ends, or uses other settings: try again");
    }
    StoredCredentials credentials(foundation_);
    return work(credentials);
}

int ClientCommands::login(const std::string& user, const std::string& password, bool discards) {
    if (user.empty() || user.find_first_of("\r\n") != std::string::npos)
        return failed("the user name is malformed");
    std::string answer;
    const std::string command = discards ? "login-discard:" : "login:";
    if (const auto status = request(command + user + "\n" + password, WithoutClient::kGoOn, &answer)) {
        std::fputs(answer.c_str(), stdout);
        return *status;
    }
    return withoutClient([&](StoredCredentials& credentials) {
        const auto unsent = credentials.unsentOfOthers(user);
        if (!discards && !unsent.empty()) return failed(unsentRefusal(unsent));
        if (!credentials.save(user, password)) return failed("the credentials could not be stored");
        std::fputs(unsentDropped(unsent).c_str(), stdout);
        return 0;
    });
}

int ClientCommands::logout(bool discards) {
    std::string answer;
    if (const auto status = request(discards ? "logout:discard" : "logout:", WithoutClient::kGoOn, &answer)) {
        std::fputs(answer.c_str(), stdout);
        return *status;
    }
    return withoutClient([&](StoredCredentials& credentials) {
        const auto unsent = credentials.unsent();
        if (!discards && !unsent.empty()) return failed(unsentRefusal(unsent));
        if (!credentials.clear()) return failed("the credentials could not be removed");
        std::fputs(unsentDropped(unsent).c_str(), stdout);
        return 0;
    });
}

int ClientCommands::settingsList() {
    for (const auto& [key, value] : foundation_.defaults.all())
        std::printf("%s=%s\n", key.c_str(), value.c_str());
    return 0;
}

int ClientCommands::settingsGet(const std::string& key) {
    const auto value = foundation_.defaults.get(key);
    if (!value) return failed("the setting \"" + key + "\" is not set");
    std::printf("%s\n", value->c_str());
    return 0;
}

int ClientCommands::settingsSet(const std::string& key, const std::string& value) {
    foundation_.defaults.set(key, value);
    return changedSettings(foundation_.defaults.synchronize());
}

int ClientCommands::settingsUnset(const std::string& key) {
    foundation_.defaults.remove(key);
    return changedSettings(foundation_.defaults.synchronize());
}

int ClientCommands::changedSettings(bool stored) {
    if (!stored) return failed("the settings could not be written");
    return request("settings:reload", WithoutClient::kGoOn).value_or(0);
}

int ClientCommands::status(bool json) {
    std::string answer;
    const int result = request("status:json", WithoutClient::kFail, &answer).value_or(1);
    if (result != 0) return result;
    if (!json) {
        const auto text = statusText(answer);
        if (!text) return failed("the client's answer is malformed");
        answer = *text;
    }
    std::fputs(answer.c_str(), stdout);
    return 0;
}

int ClientCommands::refresh() {
    return request("refresh:", WithoutClient::kFail).value_or(1);
}

int ClientCommands::quit() {
    return request("quit:", WithoutClient::kFail).value_or(1);
}

int ClientCommands::send(const std::string& text) {
    const std::string whole = text.find(':') == std::string::npos ? text + ":" : text;
    const auto reply = sendLocalText(foundation_.commandSocketPath(), whole, kAnswerDeadline);
    if (!reply.connected) return failed("no client is running");
    if (!reply.error.empty()) return failed("the client does not answer: " + reply.error);
    if (const auto answer = parseAnswer(reply.text)) {
        if (!answer->succeeded) return failed(answer->text);
        std::fputs(answer->text.c_str(), stdout);
    }
    return 0;
}

}  // namespace tarnwell
