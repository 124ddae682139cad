#pragma once

#include <chrono>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "e2e/ChildProcess.h"
#include "support/TcpRelay.h"
#include "support/TemporaryFolder.h"

namespace tarnwell::testing {

/// One file or folder as a comparison sees it.
struct TreeEntry {
    bool isFolder = false;
    std::string contents;         ///< of a file
    std::int64_t modifiedMs = 0;  ///< of a file, Unix time
    bool operator==(const TreeEntry&) const = default;
};
/// By path relative to the top, names in canonical decomposition.
using Tree = std::map<std::string, TreeEntry>;
Tree readTree(const std::string& folder);
/// What of a tree other machines see as well: names that take no part in synchronisation are left out, and so
/// are times, which the service knows as they were when the change was recorded.
Tree synchronised(Tree tree);

/// Bytes that differ from place to place and from size to size.
std::string randomBytes(std::size_t size);
/// A program, run to its end; `outputFile` is written over. Throws std::runtime_error when it does not end.
ProgramResult runProgram(const std::vector<std::string>& command, const std::string& outputFile);
/// Reads a range as a program does; "errno N" instead when it fails.
std::string readRange(const std::string& path, off_t offset, std::size_t size);

/// A client of its own: HOME, settings, cache and keychain in a private folder. Takes its mount with it.
class Client {
  public:
    Client(std::string folder, std::string address, std::string authority);
    ~Client();

    /// `tarnwell ARGUMENTS`, run to its end.
    ProgramResult run(const std::vector<std::string>& arguments, const std::string& input = "");
    void login(const std::string& user, const std::string& password);
    void start();
    [[nodiscard]] ChildProcess& process() { return *process_; }
    void kill();
    /// SIGTERM and the exit status.
    std::optional<int> stop(std::chrono::milliseconds deadline = std::chrono::seconds(30));

    [[nodiscard]] std::string mountPath() const { return folder_ + "/Tarnwell"; }
    [[nodiscard]] std::string path(const std::string& drivePath) const { return mountPath() + drivePath; }
    [[nodiscard]] bool isMounted() const;
    bool waitForMount(bool mounted = true,
                      std::chrono::milliseconds deadline = std::chrono::seconds(30)) const;
    /// Waits until the path can be seen on the drive.
    bool waitForPath(const std::string& drivePath, bool there = true) const;
    /// The drive, or a folder of it, shows exactly this, time and bytes included; waits for it.
    bool waitForTree(const std::string& drivePath, const Tree& expected) const;
    /// `tarnwell status` names this state; waits for it.
    bool waitForState(const std::string& state);
    /// Asks the client to look for changes now.
    void refresh();
    /// Until nothing waits to be sent.
    bool waitForUploads(std::chrono::milliseconds deadline = std::chrono::seconds(60));
    /// Files and folders below the client's data folder that hold contents: "Files", "Downloads" ...
    [[nodiscard]] std::string cacheFolder(const std::string& name) const {
        return folder_ + "/data/Tarnwell/" + name;
    }
    /// The log of the program and what it printed, for the message of a failed assertion.
    [[nodiscard]] std::string log() const;

  private:
    [[nodiscard]] ChildProcess::Options options(std::vector<std::string> arguments) const;

    const std::string folder_;
    std::unique_ptr<ChildProcess> process_;
    int runs_ = 0;
};

/// The whole system on this machine: one service over TLS with one domain, the user "ann@example.org" with
/// the password "secret", the share "Papers" granted to her, and her client, logged in but not started.
class World {
  public:
    struct Options {
        bool relayed = false;      ///< between client and service is a relay
        std::string dataFolder{};  ///< of the client; empty: a folder of its own
    };
    World() : World(Options()) {}
    explicit World(const Options& options);
    ~World();

    /// `tarnwell-service ARGUMENTS` on the service's data, run to its end; fails the test on another status
    /// than 0.
    ProgramResult service(const std::vector<std::string>& arguments, const std::string& input = "");
    void startService();
    void stopService();
    /// Puts a file into the folder that import() copies into the share.
    void source(const std::string& path, const std::string& contents);
    void import();

    /// REQUIRES: Options::relayed.
    [[nodiscard]] TcpRelay& relay() { return *relay_; }
    /// Requests for this endpoint ("read.aspx") that the service answered since it was started last.
    [[nodiscard]] int requests(const std::string& endpoint) const;
    /// The port that clients are told.
    [[nodiscard]] int clientPort() const { return relay_ ? relay_->port() : port_; }

    [[nodiscard]] Client& client() { return *client_; }
    /// A second machine of the same user, logged in but not started; on the same line.
    Client& otherClient();
    [[nodiscard]] std::string sourceFolder() const { return folder_.path("source"); }
    [[nodiscard]] const TemporaryFolder& folder() const { return folder_; }

  private:
    TemporaryFolder folder_;
    int port_ = 0;
    std::unique_ptr<TcpRelay> relay_;
    std::unique_ptr<ChildProcess> service_;
    std::unique_ptr<Client> client_;
    std::unique_ptr<Client> other_;
    int runs_ = 0;
};

/// Asks again every few milliseconds until `done` or the deadline.
bool eventually(const std::function<bool()>& done,
                std::chrono::milliseconds deadline = std::chrono::seconds(30));

}  // namespace tarnwell::testing
