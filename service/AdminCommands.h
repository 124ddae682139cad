#pragma once

#include <cstdint>
#include <filesystem>
#include <istream>
#include <optional>
#include <ostream>
#include <string>

#include "service/Service.h"

namespace tarnwell::service {

/// The commands that change or show a data folder, one function each; also while a server is running on it.
/// Refusals are ServiceErrors. `out` gets what the user asked for, `err` remarks.
class AdminCommands {
  public:
    AdminCommands(const ServiceData& data, std::istream& in, std::ostream& out, std::ostream& err)
        : data_(data), in_(in), out_(out), err_(err) {}

    void addDomain(const std::string& name, const std::string& address);
    void listDomains();

    /// The password comes from the terminal, without echo and twice, or as the first line of the input.
    void addUser(const std::string& email, const std::string& domain, bool passwordFromInput);
    void changePassword(const std::string& email, bool passwordFromInput);
    void listUsers();
    /// All devices of the user without an id.
    void wipeDevice(const std::string& email, const std::optional<std::string>& deviceId);

    // `share` is a share's name or id; `domain` tells shares of the same name apart.
    void addShare(const std::string& name, const std::string& domain);
    void listShares();
    void import(const std::string& share, const std::string& domain, const std::filesystem::path& source);
    void exportTo(const std::string& share, const std::string& domain, const std::filesystem::path& target);
    void grant(const std::string& share, const std::string& domain, const std::string& email, bool readOnly);
    void revoke(const std::string& share, const std::string& domain, const std::string& email);
    void renameShare(const std::string& share, const std::string& domain, const std::string& name);
    void put(const std::string& share, const std::string& domain, const std::filesystem::path& source,
             const std::string& path);
    void remove(const std::string& share, const std::string& domain, const std::string& path);
    void move(const std::string& share, const std::string& domain, const std::string& path,
              const std::string& newPath);

    /// Contents that no item has named for so many hours.
    void dropContents(int hours);

    void listLinks();
    void revokeLink(std::int64_t number);

  private:
    [[nodiscard]] DomainInfo needDomain(const std::string& name) const;
    [[nodiscard]] UserInfo needUser(const std::string& email) const;
    [[nodiscard]] ShareInfo needShare(const std::string& share, const std::string& domain) const;
    [[nodiscard]] std::string askPassword(bool fromInput);

    const ServiceData& data_;
    std::istream& in_;
    std::ostream& out_;
    std::ostream& err_;
};

}  // namespace tarnwell::service
