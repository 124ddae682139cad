#include "platform/FileKeychain.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <utility>

#include "platform/PrivateFile.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

constexpr std::size_t kLargestFile = 1u << 20;

/// Takes the text up to the next tab (or the end) off `line`.
std::optional<std::string> takeField(std::string_view& line) {
    const auto tab = line.find('\t');
    auto field = unescaped(line.substr(0, tab));
    line.remove_prefix(tab == std::string_view::npos ? line.size() : tab + 1);
    return field;
}

}  // namespace

/// One line each: service, account and password, escaped and separated by tabs.
struct FileKeychain::Entries {
    std::map<std::pair<std::string, std::string>, std::string> passwords;

    static std::optional<Entries> decoded(std::string_view text) {
        Entries entries;
        while (!text.empty()) {
            const auto end = text.find('\n');
            if (end == std::string_view::npos) return std::nullopt;  // cut short
            auto line = text.substr(0, end);
            text.remove_prefix(end + 1);
            const auto service = takeField(line);
            const auto account = takeField(line);
            const auto password = takeField(line);
            if (!service || !account || !password || account->empty() || !line.empty()) return std::nullopt;
            entries.passwords[{*service, *account}] = *password;
        }
        return entries;
    }
    [[nodiscard]] std::string encoded() const {
        std::string text;
        for (const auto& [key, password] : passwords) {
            text +=
                escaped(key.first, "") + "\t" + escaped(key.second, "") + "\t" + escaped(password, "") + "\n";
        }
        return text;
    }
};

FileKeychain::FileKeychain(std::string path) : path_(std::move(path)) {}

std::optional<FileKeychain::Entries> FileKeychain::load() {
    const auto contents = readWholeFile(path_, kLargestFile);
    if (contents.error == ENOENT) return Entries();
    if (contents.error != 0) {
        TWLog(kLogMain, "Error! Cannot read password file %@ : %@", path_, std::strerror(contents.error));
        return std::nullopt;
    }
    if ((contents.status.st_mode & 077) != 0 || contents.status.st_uid != ::geteuid()) {
        TWLog(kLogMain,
              "Error! Password file %@ is not used: others can reach it (mode %o, owner %u). It must belong "
              "to the "
              "user and have mode 600.",
              path_, contents.status.st_mode & 07777, contents.status.st_uid);
        return std::nullopt;
    }
    auto entries = Entries::decoded(contents.bytes);
    if (!entries) TWLog(kLogMain, "Error! Password file %@ is damaged and not used.", path_);
    return entries;
}

bool FileKeychain::save(const Entries& entries) {
    const int error = replacePrivateFile(path_, entries.encoded());
    if (error != 0) TWLog(kLogMain, "Error! Cannot write password file %@ : %@", path_, std::strerror(error));
    return error == 0;
}

std::vector<std::string> FileKeychain::accounts(std::string_view service) {
    std::lock_guard lock(mutex_);
    std::vector<std::string> found;
    if (const auto entries = load()) {
        for (const auto& [key, password] : entries->passwords) {
            if (key.first == service) found.push_back(key.second);
        }
    }
    return found;
}

std::optional<std::string> FileKeychain::password(std::string_view service, std::string_view account) {
    std::lock_guard lock(mutex_);
    const auto entries = load();
    if (!entries) return std::nullopt;
    const auto entry = entries->passwords.find({std::string(service), std::string(account)});
    if (entry == entries->passwords.end()) return std::nullopt;
    return entry->second;
}

bool FileKeychain::setPassword(std::string_view service, std::string_view account,
                               std::string_view password) {
    if (account.empty()) return false;
    std::lock_guard lock(mutex_);
    const int error = makePrivateFolders(std::filesystem::path(path_).parent_path().string());
    const auto processLock = error == 0 ? lockBeside(path_) : OwnedDescriptor();
    if (!processLock) {
        TWLog(kLogMain, "Error! Cannot lock password file %@", path_);
        return false;
    }
    auto entries = load();
    if (!entries) return false;
    entries->passwords[{std::string(service), std::string(account)}] = password;
    return save(*entries);
}

bool FileKeychain::deletePassword(std::string_view service, std::string_view account) {
    std::lock_guard lock(mutex_);
    const auto processLock = lockBeside(path_);
    if (!processLock) return false;
    auto entries = load();
    if (!entries || entries->passwords.erase({std::string(service), std::string(account)}) == 0) return false;
    return save(*entries);
}

}  // namespace tarnwell
