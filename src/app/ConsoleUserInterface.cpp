#include <cstdio>

#include "app/UserInterface.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

void say(const std::string& text) {
    TWLog(kLogMain, "%@", text);
    std::fprintf(stderr, "tarnwell: %s\n", text.c_str());
}

}  // namespace

void ConsoleUserInterface::showAlert(const Alert& alert, std::function<void(std::size_t button)> chosen) {
    say(alert.title + ": " + alert.text + " [" + alert.buttons.at(alert.safeButton) + "]");
    chosen(alert.safeButton);
}

void ConsoleUserInterface::askForLogin() {
    say("Not logged in. Use: tarnwell login --user EMAIL");
}

}  // namespace tarnwell
