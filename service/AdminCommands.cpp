#include "service/AdminCommands.h"

#include <termios.h>
#include <unistd.h>

#include "connector/ClientApiRecords.h"
#include "service/Exporter.h"
#include "service/Importer.h"
#include "service/Secrets.h"
#include "service/ServiceError.h"
#include "service/ShareTree.h"
#include "util/TWUtils.h"

namespace tarnwell::service {

namespace {

constexpr std::size_t kLongestPassword = 1024;

/// Keeps what is typed from showing while it lives, where the input is a terminal.
class NoEcho {
  public:
    NoEcho() {
        if (::tcgetattr(STDIN_FILENO, &former_) != 0) return;
        termios silent = former_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        changed_ = ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
    }
    ~NoEcho() {
        if (changed_) ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &former_);
    }
    NoEcho(const NoEcho&) = delete;
    NoEcho& operator=(const NoEcho&) = delete;

  private:
    termios former_{};
    bool changed_ = false;
};

}  // namespace

DomainInfo AdminCommands::needDomain(const std::string& name) const {
    auto domain = data_.metadata().domainNamed(name);
    if (!domain) throw ServiceError("there is no domain named \"" + name + "\"");
    return std::move(*domain);
}

UserInfo AdminCommands::needUser(const std::string& email) const {
    auto user = data_.metadata().userWithEmail(email);
    if (!user) throw ServiceError("there is no user " + email);
    return std::move(*user);
}

ShareInfo AdminCommands::needShare(const std::string& share, const std::string& domain) const {
    const std::string domainId = domain.empty() ? std::string() : needDomain(domain).id;
    std::optional<ShareInfo> found;
    for (auto& one : data_.metadata().shares()) {
        if (!domainId.empty() && one.domainId != domainId) continue;
        if (one.id != share && keyFromPath(one.name) != keyFromPath(share)) continue;
        if (found)
            throw ServiceError("several domains have a share \"" + share + "\": tell which with --domain");
        found = std::move(one);
    }
    if (!found) throw ServiceError("there is no share \"" + share + "\"");
    return std::move(*found);
}

std::string AdminCommands::askPassword(bool fromInput) {
    const auto line = [this] {
        std::string text;
        std::getline(in_, text);
        if (text.ends_with('\r')) text.pop_back();
        return text;
    };
    std::string password;
    if (fromInput) {
        password = line();
    } else {
        const NoEcho silence;
        err_ << "Password: " << std::flush;
        password = line();
        err_ << "\nThe same again: " << std::flush;
        const bool same = line() == password;
        err_ << "\n";
        if (!same) throw ServiceError("the two passwords differ");
    }
    if (password.empty()) throw ServiceError("the password is empty");
    if (password.size() > kLongestPassword) throw ServiceError("the password is too long");
    return password;
}

void AdminCommands::addDomain(const std::string& name, const std::string& address) {
    const auto domain = data_.metadata().addDomain(name, address);
    // A running server sees the new file at its next connection.
    (void)data_.updateCertificates();
    out_ << "domain " << domain.name << " at " << domain.address << "\n";
}

void AdminCommands::listDomains() {
    for (const auto& domain : data_.metadata().domains())
        out_ << domain.name << "\t" << domain.address << "\n";
}

void AdminCommands::addUser(const std::string& email, const std::string& domain, bool passwordFromInput) {
    const std::string domainId = needDomain(domain).id;
    data_.metadata().addUser(email, domainId, hashPassword(askPassword(passwordFromInput)));
    out_ << "user " << email << " in " << domain << "\n";
}

void AdminCommands::changePassword(const std::string& email, bool passwordFromInput) {
    const auto user = needUser(email);
    data_.metadata().setPassword(user.id, hashPassword(askPassword(passwordFromInput)));
    out_ << "password changed; the user's devices have to log in again\n";
}

void AdminCommands::listUsers() {
    for (const auto& user : data_.metadata().users()) {
        const auto domain = data_.metadata().domainWithId(user.domainId);
        out_ << user.email << "\t" << (domain ? domain->name : "?") << "\n";
        for (const auto& device : data_.metadata().devicesOf(user.id)) {
            out_ << "  " << device.id << "\t" << device.name << "\t" << device.system << "\t"
                 << JSONObjectFromNSDate(device.created) << (device.wipe ? "\twiped" : "") << "\n";
        }
    }
}

void AdminCommands::wipeDevice(const std::string& email, const std::optional<std::string>& deviceId) {
    const int count = data_.metadata().wipeDevices(needUser(email).id, deviceId);
    if (count == 0) throw ServiceError(deviceId ? "the user has no such device" : "the user has no devices");
    out_ << count << (count == 1 ? " device is" : " devices are") << " wiped at the next login\n";
}

void AdminCommands::addShare(const std::string& name, const std::string& domain) {
    const auto share = data_.metadata().addShare(name, needDomain(domain).id);
    out_ << "share " << share.name << " (" << share.id << ")\n";
}

void AdminCommands::listShares() {
    for (const auto& share : data_.metadata().shares()) {
        const auto domain = data_.metadata().domainWithId(share.domainId);
        out_ << share.id << "\t" << (domain ? domain->name : "?") << "\t" << share.name << "\ttick "
             << share.tick << "\n";
    }
}

void AdminCommands::import(const std::string& share, const std::string& domain,
                           const std::filesystem::path& source) {
    const auto target = needShare(share, domain);
    const auto report = [this](const std::string& line) { err_ << line << "\n"; };
    const auto counts = importFolder(data_.metadata(), data_.contents(), target.id, source, report);
    out_ << "imported " << counts.files << " files, " << counts.folders << " folders, " << counts.bytes
         << " bytes; skipped " << counts.skipped << ", renamed " << counts.renamed << "\n";
}

void AdminCommands::exportTo(const std::string& share, const std::string& domain,
                             const std::filesystem::path& target) {
    const auto report = [this](const std::string& line) { err_ << line << "\n"; };
    const auto counts =
        exportShare(data_.metadata(), data_.contents(), needShare(share, domain).id, target, report);
    out_ << "exported " << counts.files << " files, " << counts.folders << " folders, " << counts.bytes
         << " bytes\n";
    if (counts.missing > 0)
        throw ServiceError("the contents of " + std::to_string(counts.missing) + " files are missing");
}

void AdminCommands::dropContents(int hours) {
    out_ << "dropped " << data_.dropOldContents(std::chrono::hours(hours)) << " former contents\n";
}

void AdminCommands::grant(const std::string& share, const std::string& domain, const std::string& email,
                          bool readOnly) {
    const auto target = needShare(share, domain);
    data_.metadata().grant(target.id, needUser(email).id, readOnly);
    out_ << email << (readOnly ? " may read \"" : " may read and write \"") << target.name << "\"\n";
}

void AdminCommands::revoke(const std::string& share, const std::string& domain, const std::string& email) {
    const auto target = needShare(share, domain);
    if (!data_.metadata().revoke(target.id, needUser(email).id)) {
        throw ServiceError(email + " has no right in \"" + target.name + "\"");
    }
    out_ << email << " may no longer use \"" << target.name << "\"\n";
}

void AdminCommands::renameShare(const std::string& share, const std::string& domain,
                                const std::string& name) {
    const auto target = needShare(share, domain);
    data_.metadata().renameShare(target.id, name);
    out_ << "share \"" << target.name << "\" is now \"" << name << "\"\n";
}

void AdminCommands::put(const std::string& share, const std::string& domain,
                        const std::filesystem::path& source, const std::string& path) {
    putFile(data_.metadata(), data_.contents(), needShare(share, domain).id, source, path);
    out_ << "put " << path << "\n";
}

void AdminCommands::remove(const std::string& share, const std::string& domain, const std::string& path) {
    int count = 0;
    data_.metadata().change(needShare(share, domain).id, [&](ShareChange& change) {
        const auto item = itemAtPath(change, path);
        if (!item) throw ServiceError("there is no \"" + path + "\" in the share");
        count = removeItem(change, *item);
    });
    out_ << "removed " << count << (count == 1 ? " item\n" : " items\n");
}

void AdminCommands::move(const std::string& share, const std::string& domain, const std::string& path,
                         const std::string& newPath) {
    const auto target = splitPath(newPath);
    data_.metadata().change(needShare(share, domain).id, [&](ShareChange& change) {
        const auto item = itemAtPath(change, path);
        if (!item) throw ServiceError("there is no \"" + path + "\" in the share");
        moveItem(change, *item, folderAtPath(change, target.folder), target.name);
    });
    out_ << "moved to " << newPath << "\n";
}

void AdminCommands::listLinks() {
    for (const auto& link : data_.metadata().links()) {
        std::string target = "log-in of a browser";
        if (link.kind != kLinkWebClient) {
            data_.metadata().view(link.shareId, [&](ShareView& view) {
                target = view.share().name;
                const auto path = pathOf(view, link.item);
                target += path ? "/" + *path : ", a deleted item";
            });
        }
        const bool over = link.expires && *link.expires <= std::chrono::system_clock::now();
        out_ << link.number << "\t" << link.email << "\t" << target << "\t"
             << JSONObjectFromNSDate(link.created) << "\t"
             << (link.revoked   ? "revoked"
                 : over         ? "expired"
                 : link.expires ? "until " + JSONObjectFromNSDate(*link.expires)
                                : "for ever")
             << "\n";
    }
}

void AdminCommands::revokeLink(std::int64_t number) {
    if (!data_.metadata().revokeLink(number))
        throw ServiceError("there is no link " + std::to_string(number));
    out_ << "link " << number << " is revoked\n";
}

}  // namespace tarnwell::service
