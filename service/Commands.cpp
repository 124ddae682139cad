#include "service/Commands.h"

#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include "service/AdminCommands.h"
#include "service/Restore.h"
#include "service/ServiceError.h"

namespace tarnwell::service {

namespace fs = std::filesystem;

namespace {

std::string defaultFolder() {
    if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data == '/') {
        return (fs::path(data) / "tarnwell-service").string();
    }
    const char* home = std::getenv("HOME");
    return (fs::path(home && *home ? home : "/") / ".local/share/tarnwell-service").string();
}

/// Blocks the signals that end the server in every thread that is made from now on, and waits for one of
/// them.
class StopSignals {
  public:
    StopSignals() {
        sigemptyset(&set_);
        sigaddset(&set_, SIGTERM);
        sigaddset(&set_, SIGINT);
        pthread_sigmask(SIG_BLOCK, &set_, nullptr);
        // A peer that is gone is an error of the write, not of the process.
        ::signal(SIGPIPE, SIG_IGN);
    }
    void wait() const {
        int signal = 0;
        while (sigwait(&set_, &signal) != 0) {
        }
    }

  private:
    sigset_t set_{};
};

void serve(const std::string& folder, const ServerOptions& options, bool quiet, std::ostream& out) {
    const StopSignals signals;
    const ServiceData data(folder);
    ServiceLog log(quiet);
    Service service(data, options, log);
    service.start();
    const std::string host =
        options.listen.find(':') == std::string::npos ? options.listen : "[" + options.listen + "]";
    out << "certificate authority: " << data.certificates().authority.string() << "\n"
        << "listening on " << host << ":" << service.port() << std::endl;
    signals.wait();
    service.stop();
}

/// The arguments of all commands; CLI11 fills them.
struct Arguments {
    std::string folder = defaultFolder();
    ServerOptions server;
    bool quiet = false;
    std::string name, address, domain, email, share, path, newPath, source;
    std::optional<std::string> device;
    std::int64_t number = 0;
    int hours = 0;
    bool passwordFromInput = false;
    bool readOnly = false;
};

using Work = std::function<void(AdminCommands&)>;

CLI::App* command(CLI::App& parent, const char* name, const char* help, Work& chosen, Work work) {
    CLI::App* added = parent.add_subcommand(name, help);
    added->callback([&chosen, work = std::move(work)] { chosen = work; });
    return added;
}

void describeAccounts(CLI::App& app, Arguments& a, Work& chosen) {
    CLI::App& domain = *app.add_subcommand("domain", "Domains: each has an address, users and shares");
    domain.require_subcommand(1);
    auto* add = command(domain, "add", "Add a domain", chosen,
                        [&a](AdminCommands& admin) { admin.addDomain(a.name, a.address); });
    add->add_option("NAME", a.name, "Name of the domain")->required();
    add->add_option("--address", a.address, "Host suffix, a port may follow: example.localhost:8443")
        ->required();
    command(domain, "list", "Show the domains", chosen, [](AdminCommands& admin) { admin.listDomains(); });

    CLI::App& user = *app.add_subcommand("user", "Users and their passwords");
    user.require_subcommand(1);
    add = command(user, "add", "Add a user", chosen,
                  [&a](AdminCommands& admin) { admin.addUser(a.email, a.domain, a.passwordFromInput); });
    add->add_option("EMAIL", a.email, "E-mail address")->required();
    add->add_option("--domain", a.domain, "The user's domain")->required();
    add->add_flag("--password-stdin", a.passwordFromInput, "Read the password from the standard input");
    add = command(user, "passwd", "Change a user's password and end all logins", chosen,
                  [&a](AdminCommands& admin) { admin.changePassword(a.email, a.passwordFromInput); });
    add->add_option("EMAIL", a.email, "E-mail address")->required();
    add->add_flag("--password-stdin", a.passwordFromInput, "Read the password from the standard input");
    command(user, "list", "Show the users and their devices", chosen,
            [](AdminCommands& admin) { admin.listUsers(); });

    add = command(app, "wipe-device", "Make a user's devices forget their login", chosen,
                  [&a](AdminCommands& admin) { admin.wipeDevice(a.email, a.device); });
    add->add_option("EMAIL", a.email, "E-mail address")->required();
    add->add_option("DEVICE", a.device, "Id of one device; all of them when it is left out");
}

void describeShares(CLI::App& app, Arguments& a, Work& chosen) {
    CLI::App& share = *app.add_subcommand("share", "Shares: trees of files that users have rights in");
    share.require_subcommand(1);
    const auto onShare = [&](CLI::App& parent, const char* name, const char* help, Work work) {
        auto* added = command(parent, name, help, chosen, std::move(work));
        added->add_option("SHARE", a.share, "Name or id of the share")->required();
        added->add_option("--domain", a.domain, "Domain of the share, where the name alone is not clear");
        return added;
    };
    auto* add = command(share, "add", "Add an empty share", chosen,
                        [&a](AdminCommands& admin) { admin.addShare(a.name, a.domain); });
    add->add_option("NAME", a.name, "Name of the share")->required();
    add->add_option("--domain", a.domain, "Domain of the share")->required();
    command(share, "list", "Show the shares", chosen, [](AdminCommands& admin) { admin.listShares(); });
    add = onShare(share, "import", "Copy what is in a folder into a share",
                  [&a](AdminCommands& admin) { admin.import(a.share, a.domain, a.source); });
    add->add_option("DIR", a.source, "The folder")->required();
    add = onShare(share, "export", "Copy what a share holds into an empty folder",
                  [&a](AdminCommands& admin) { admin.exportTo(a.share, a.domain, a.source); });
    add->add_option("DIR", a.source, "The folder")->required();
    add = onShare(share, "grant", "Give a user rights in a share",
                  [&a](AdminCommands& admin) { admin.grant(a.share, a.domain, a.email, a.readOnly); });
    add->add_option("EMAIL", a.email, "E-mail address")->required();
    add->add_flag("--read-only", a.readOnly, "The user may not change anything");
    add = onShare(share, "revoke", "Take a user's rights in a share away, at once",
                  [&a](AdminCommands& admin) { admin.revoke(a.share, a.domain, a.email); });
    add->add_option("EMAIL", a.email, "E-mail address")->required();
    add = onShare(share, "rename", "Give a share another name",
                  [&a](AdminCommands& admin) { admin.renameShare(a.share, a.domain, a.name); });
    add->add_option("NAME", a.name, "The new name")->required();
    add = onShare(app, "put", "Copy a file into a share, as a new version where there is one",
                  [&a](AdminCommands& admin) { admin.put(a.share, a.domain, a.source, a.path); });
    add->add_option("FILE", a.source, "The file")->required();
    add->add_option("PATH", a.path, "Path in the share")->required();
    add = onShare(app, "rm", "Remove a file, or a folder with all in it",
                  [&a](AdminCommands& admin) { admin.remove(a.share, a.domain, a.path); });
    add->add_option("PATH", a.path, "Path in the share")->required();
    add = onShare(app, "mv", "Rename or move an item",
                  [&a](AdminCommands& admin) { admin.move(a.share, a.domain, a.path, a.newPath); });
    add->add_option("PATH", a.path, "Path in the share")->required();
    add->add_option("NEWPATH", a.newPath, "New path; its folder must exist and the name be free")->required();
}

void describeContents(CLI::App& app, Arguments& a, Work& chosen) {
    CLI::App& contents = *app.add_subcommand("contents", "Stored bytes");
    contents.require_subcommand(1);
    auto* drop = command(contents, "drop",
                         "Drop contents of former versions and deleted files now, which otherwise stay a day",
                         chosen, [&a](AdminCommands& admin) { admin.dropContents(a.hours); });
    drop->add_option("--older-than", a.hours, "Only those that were replaced or deleted so many hours ago")
        ->check(CLI::NonNegativeNumber);
}

void describeLinks(CLI::App& app, Arguments& a, Work& chosen) {
    CLI::App& link = *app.add_subcommand("link", "Links that users have made");
    link.require_subcommand(1);
    command(link, "list", "Show the links, by number", chosen,
            [](AdminCommands& admin) { admin.listLinks(); });
    auto* revoke = command(link, "revoke", "End a link, at once", chosen,
                           [&a](AdminCommands& admin) { admin.revokeLink(a.number); });
    revoke->add_option("NUMBER", a.number, "As `link list` shows it")->required();
}

}  // namespace

int runCommand(int argc, const char* const* argv, std::istream& in, std::ostream& out, std::ostream& err) {
    CLI::App app("tarnwell-service: a self-hosted file service", "tarnwell-service");
    Arguments a;
    Work chosen;
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option("--data", a.folder, "The data folder")->capture_default_str();
    CLI::App* serving = app.add_subcommand("serve", "Run the server until SIGTERM or SIGINT");
    serving->add_option("--listen", a.server.listen, "IP address to listen at")->capture_default_str();
    serving->add_option("--port", a.server.port, "Port; 0 takes a free one")->capture_default_str();
    serving->add_option("--max-connections", a.server.maxConnections, "Bound on clients at once")
        ->capture_default_str();
    serving->add_flag("--quiet", a.quiet, "Log warnings only, not every request");
    describeAccounts(app, a, chosen);
    describeShares(app, a, chosen);
    describeContents(app, a, chosen);
    describeLinks(app, a, chosen);
    CLI::App* restoring = app.add_subcommand("restore", "Put a backup of the database in place");
    restoring->add_option("FILE", a.source, "The copy of service.db")->required();
    try {
        app.parse(argc, argv);
        if (serving->parsed()) {
            serve(a.folder, a.server, a.quiet, out);
            return 0;
        }
        if (restoring->parsed()) {
            restoreDatabase(a.folder, a.source, out);
            return 0;
        }
        const ServiceData data(a.folder);
        AdminCommands admin(data, in, out, err);
        chosen(admin);
        return 0;
    } catch (const CLI::ParseError& error) {
        return app.exit(error, out, err) == 0 ? 0 : 1;
    } catch (const std::exception& error) {
        err << "tarnwell-service: " << error.what() << "\n";
        return 1;
    }
}

}  // namespace tarnwell::service
