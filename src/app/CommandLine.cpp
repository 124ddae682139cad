#include "app/CommandLine.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>

#include "app/ClientCommands.h"
#include "app/Composition.h"
#include "app/Foundation.h"
#include "platform/SignalWatcher.h"

namespace tarnwell {

namespace {

using Action = std::function<int(ClientCommands&)>;

struct Arguments {
    bool headless = false;
    std::string user, key, value, text;
    bool passwordFromInput = false;
    bool json = false;
    bool discards = false;
    Action action;  ///< empty: run the client
};

void addLogin(CLI::App& program, Arguments& arguments) {
    auto* login = program.add_subcommand("login", "Store the credentials of a user and log in");
    login->add_option("--user", arguments.user, "E-mail address of the user")->required();
    login->add_flag("--password-stdin", arguments.passwordFromInput, "Read the password from standard input");
    login->add_flag("--discard", arguments.discards, "Drop another user's changes that were not sent");
    login->callback([&arguments] {
        arguments.action = [&arguments](ClientCommands& commands) {
            const auto password = readPassword(arguments.user, arguments.passwordFromInput);
            return password ? commands.login(arguments.user, *password, arguments.discards) : 1;
        };
    });
    auto* logout = program.add_subcommand("logout", "Forget the credentials and what is cached");
    logout->add_flag("--discard", arguments.discards, "Also with changes that were not sent: they are lost");
    logout->callback([&arguments] {
        arguments.action = [&](ClientCommands& commands) { return commands.logout(arguments.discards); };
    });
}

void addSettings(CLI::App& program, Arguments& arguments) {
    auto* settings = program.add_subcommand("settings", "Show and change the settings");
    settings->require_subcommand(1);
    settings->add_subcommand("list", "Every setting, as KEY=VALUE")->callback([&arguments] {
        arguments.action = [](ClientCommands& commands) { return commands.settingsList(); };
    });
    auto* get = settings->add_subcommand("get", "The value of one setting");
    get->add_option("KEY", arguments.key)->required();
    get->callback([&arguments] {
        arguments.action = [&](ClientCommands& commands) { return commands.settingsGet(arguments.key); };
    });
    auto* set = settings->add_subcommand("set", "Change a setting");
    set->add_option("KEY", arguments.key)->required();
    set->add_option("VALUE", arguments.value)->required();
    set->callback([&arguments] {
        arguments.action = [&](ClientCommands& commands) {
            return commands.settingsSet(arguments.key, arguments.value);
        };
    });
    auto* unset = settings->add_subcommand("unset", "Remove a setting");
    unset->add_option("KEY", arguments.key)->required();
    unset->callback([&arguments] {
        arguments.action = [&](ClientCommands& commands) { return commands.settingsUnset(arguments.key); };
    });
}

void addRequests(CLI::App& program, Arguments& arguments) {
    auto* status = program.add_subcommand("status", "What the running client is doing");
    status->add_flag("--json", arguments.json, "For programs");
    status->callback([&arguments] {
        arguments.action = [&](ClientCommands& commands) { return commands.status(arguments.json); };
    });
    program.add_subcommand("refresh", "Look for changes made elsewhere now")->callback([&arguments] {
        arguments.action = [](ClientCommands& commands) { return commands.refresh(); };
    });
    program.add_subcommand("quit", "End the running client, after its open work")->callback([&arguments] {
        arguments.action = [](ClientCommands& commands) { return commands.quit(); };
    });
    auto* send = program.add_subcommand("send", "Send a text command to the running client");
    send->add_option("COMMAND", arguments.text, "COMMAND or COMMAND:PATH")->required();
    send->callback([&arguments] {
        arguments.action = [&](ClientCommands& commands) { return commands.send(arguments.text); };
    });
}

int runClient(int& argc, char** argv, bool headless) {
    SignalWatcher::blockSignals();  // before any thread exists
    return Composition(argc, argv, headless).run();
}

}  // namespace

int runCommandLine(int argc, char** argv) {
    Arguments arguments;
    CLI::App program("The cloud file service as one local drive. Without a command, runs the client.",
                     "tarnwell");
    program.add_flag("--headless", arguments.headless, "Run without any window");
    program.set_version_flag("--version", "tarnwell " TARNWELL_VERSION);
    program.require_subcommand(0, 1);
    addLogin(program, arguments);
    addSettings(program, arguments);
    addRequests(program, arguments);
    try {
        program.parse(argc, argv);
        if (!arguments.action) return runClient(argc, argv, arguments.headless);
        Foundation foundation;
        ClientCommands commands(foundation);
        return arguments.action(commands);
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tarnwell: %s\n", error.what());
        return 1;
    }
}

}  // namespace tarnwell
