#include "app/ClientCommands.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <variant>

#include "app/CommandMessage.h"
#include "app/Foundation.h"
#include "app/StatusReport.h"
#include "app/StoredCredentials.h"
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

std::variant<SingleInstance, SingleInstance::Other, SingleInstance::Failure> lockClient(
    const Foundation& foundation) {
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(foundation.lockPath()).parent_path(), error);
    return SingleInstance::acquire(foundation.lockPath());
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

int ClientCommands::login(const std::string& user, const std::string& password) {
    if (user.empty() || user.find_first_of("\r\n") != std::string::npos)
        return failed("the user name is malformed");
    if (const auto status = request("login:" + user + "\n" + password, WithoutClient::kGoOn)) return *status;
    const auto lock = lockClient(foundation_);
    if (std::holds_alternative<SingleInstance::Other>(lock))
        return failed("a client starts or ends: try again");
    return StoredCredentials(foundation_).save(user, password)
               ? 0
               : failed("the credentials could not be stored");
}

int ClientCommands::logout() {
    if (const auto status = request("logout:", WithoutClient::kGoOn)) return *status;
    const auto lock = lockClient(foundation_);
    if (std::holds_alternative<SingleInstance::Other>(lock))
        return failed("a client starts or ends: try again");
    return StoredCredentials(foundation_).clear() ? 0 : failed("the credentials could not be removed");
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
