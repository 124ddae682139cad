#include "e2e/World.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "util/TWUtils.h"

namespace fs = std::filesystem;

namespace tarnwell::testing {

namespace {

constexpr std::chrono::seconds kProgramDeadline{60};
const std::string kBin = TARNWELL_BIN;

std::string contentsOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

ProgramResult runToEnd(ChildProcess::Options options, const std::string& outputFile) {
    fs::remove(outputFile);
    options.outputFile = outputFile;
    ChildProcess process(options);
    const auto status = process.wait(kProgramDeadline);
    if (!status) throw std::runtime_error(options.command[0] + " does not end");
    return {*status, contentsOf(outputFile)};
}

/// A port that nobody has now; the domain's address must be known before the service starts.
int freePort() {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    const bool bound = bind(descriptor, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                       getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    close(descriptor);
    if (!bound) throw std::runtime_error("no free port");
    return ntohs(address.sin_port);
}

void addToTree(const std::string& folder, const std::string& relative, Tree& tree) {
    for (const auto& item : fs::directory_iterator(folder)) {
        const std::string name = item.path().filename().string();
        if (relative.empty() && name == ".fuselock") continue;
        const std::string path = relative + "/" + decomposed(name);
        struct stat information {};
        if (lstat(item.path().c_str(), &information) != 0)
            throw std::runtime_error("lstat " + item.path().string());
        auto& entry = tree[path];
        entry.isFolder = S_ISDIR(information.st_mode);
        if (entry.isFolder) {
            addToTree(item.path().string(), path, tree);
        } else {
            entry.contents = contentsOf(item.path());
            entry.modifiedMs = information.st_mtim.tv_sec * 1000 + information.st_mtim.tv_nsec / 1'000'000;
            // A read error is not an empty file.
            if (entry.contents.size() != static_cast<std::size_t>(information.st_size))
                entry.contents = "unreadable";
        }
    }
}

}  // namespace

ProgramResult runProgram(const std::vector<std::string>& command, const std::string& outputFile) {
    return runToEnd({.command = command}, outputFile);
}

Tree readTree(const std::string& folder) {
    Tree tree;
    addToTree(folder, "", tree);
    return tree;
}

Tree synchronised(Tree tree) {
    std::erase_if(tree, [](const auto& item) {
        const std::string name = fs::path(item.first).filename();
        return !item.second.isFolder &&
               (name.starts_with('.') || name.starts_with('~') || name.ends_with(".tmp"));
    });
    for (auto& [path, entry] : tree)
        entry.modifiedMs = 0;
    return tree;
}

std::string randomBytes(std::size_t size) {
    std::mt19937_64 generator(size + 1);
    std::string bytes(size, '\0');
    for (auto& byte : bytes)
        byte = static_cast<char>(generator());
    return bytes;
}

std::string readRange(const std::string& path, off_t offset, std::size_t size) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return "errno " + std::to_string(errno);
    std::string bytes(size, '\0');
    std::size_t got = 0;
    while (got < size) {
        const ssize_t count = pread(file, bytes.data() + got, size - got, offset + static_cast<off_t>(got));
        if (count < 0) bytes = "errno " + std::to_string(errno);
        if (count <= 0) break;
        got += static_cast<std::size_t>(count);
    }
    close(file);
    if (!bytes.starts_with("errno")) bytes.resize(got);
    return bytes;
}

bool eventually(const std::function<bool()>& done, std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        poll(nullptr, 0, 20);
    }
    return true;
}

Client::Client(std::string folder, std::string address, std::string authority) : folder_(std::move(folder)) {
    fs::create_directories(folder_);
    for (const auto& [key, value] :
         std::map<std::string, std::string>{{"TWGlobalAddress", std::move(address)},
                                            {"TWCertificateAuthority", std::move(authority)},
                                            {"TWKeychainFile", folder_ + "/keychain"}}) {
        const auto result = run({"settings", "set", key, value});
        if (result.status != 0) throw std::runtime_error(result.output);
    }
}

Client::~Client() {
    stop();
    process_.reset();
    if (isMounted()) {
        umount2(mountPath().c_str(), MNT_DETACH);
        if (isMounted())
            runToEnd({.command = {"/usr/bin/fusermount3", "-u", "-z", mountPath()}}, folder_ + "/umount.out");
    }
}

ChildProcess::Options Client::options(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), kBin + "/tarnwell");
    return {.command = std::move(arguments),
            .environment = {{"HOME", folder_},
                            {"XDG_DATA_HOME", folder_ + "/data"},
                            {"XDG_CONFIG_HOME", folder_ + "/config"},
                            {"XDG_CACHE_HOME", folder_ + "/cache"},
                            {"XDG_RUNTIME_DIR", folder_ + "/run"},
                            {"DBUS_SESSION_BUS_ADDRESS", ""},
                            {"DISPLAY", ""}},
            .input = "",
            .outputFile = folder_ + "/client.out"};
}

ProgramResult Client::run(const std::vector<std::string>& arguments, const std::string& input) {
    auto command = options(arguments);
    command.input = input;
    return runToEnd(std::move(command), folder_ + "/run" + std::to_string(++runs_) + ".out");
}

void Client::login(const std::string& user, const std::string& password) {
    const auto result = run({"login", "--user", user, "--password-stdin"}, password + "\n");
    ASSERT_EQ(result.status, 0) << result.output;
}

void Client::start() {
    process_ = std::make_unique<ChildProcess>(options({"--headless"}));
}

void Client::kill() {
    process_->signal(SIGKILL);
    ASSERT_EQ(process_->wait(std::chrono::seconds(10)), -SIGKILL);
}

std::optional<int> Client::stop(std::chrono::milliseconds deadline) {
    if (!process_) return std::nullopt;
    process_->signal(SIGTERM);
    return process_->wait(deadline);
}

bool Client::isMounted() const {
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        if (line.find(" " + mountPath() + " ") != std::string::npos) return true;
    }
    return false;
}

bool Client::waitForMount(bool mounted, std::chrono::milliseconds deadline) const {
    return eventually([&] { return isMounted() == mounted; }, deadline);
}

bool Client::waitForPath(const std::string& drivePath, bool there) const {
    return eventually([&] {
        struct stat information {};
        return isMounted() && (lstat(path(drivePath).c_str(), &information) == 0) == there;
    });
}

bool Client::waitForTree(const std::string& drivePath, const Tree& expected) const {
    return eventually([&] {
        try {
            return readTree(path(drivePath)) == expected;
        } catch (const std::exception&) {
            return false;  // it changed meanwhile
        }
    });
}

bool Client::waitForState(const std::string& state) {
    return eventually([&] {
        return run({"status", "--json"}).output.find("\"state\":\"" + state + "\"") != std::string::npos;
    });
}

void Client::refresh() {
    const auto result = run({"refresh"});
    ASSERT_EQ(result.status, 0) << result.output;
}

bool Client::waitForUploads(std::chrono::milliseconds deadline) {
    return eventually(
        [&] {
            return run({"status", "--json"}).output.find("\"uploadQueueLen\":0,") != std::string::npos;
        },
        deadline);
}

std::string Client::log() const {
    std::string text = contentsOf(folder_ + "/client.out");
    std::error_code error;
    for (const auto& file : fs::directory_iterator(folder_ + "/data/Tarnwell/Logs", error)) {
        text += contentsOf(file.path());
    }
    return text;
}

World::World(const Options& options) : port_(freePort()) {
    if (options.relayed) relay_ = std::make_unique<TcpRelay>(port_);
    const std::string address = "example.localhost:" + std::to_string(clientPort());
    service({"domain", "add", "home", "--address", address});
    service({"user", "add", "ann@example.org", "--domain", "home", "--password-stdin"}, "secret\n");
    service({"share", "add", "Papers", "--domain", "home"});
    service({"share", "grant", "Papers", "ann@example.org"});
    startService();
    const std::string home = options.dataFolder.empty() ? folder_.path("ann") : options.dataFolder;
    client_ = std::make_unique<Client>(home, address, folder_.path("service/tls/ca.pem"));
    client_->login("ann@example.org", "secret");
}

Client& World::otherClient() {
    if (!other_) {
        other_ = std::make_unique<Client>(folder_.path("ann2"),
                                          "example.localhost:" + std::to_string(clientPort()),
                                          folder_.path("service/tls/ca.pem"));
        other_->login("ann@example.org", "secret");
    }
    return *other_;
}

World::~World() {
    if (::testing::Test::HasFailure()) {
        std::fprintf(stderr, "--- client\n%s--- service\n%s", client_->log().c_str(),
                     contentsOf(folder_.path("service.out")).c_str());
        if (other_) std::fprintf(stderr, "--- other client\n%s", other_->log().c_str());
    }
    other_.reset();
    client_.reset();
}

ProgramResult World::service(const std::vector<std::string>& arguments, const std::string& input) {
    std::vector<std::string> command{kBin + "/tarnwell-service", "--data", folder_.path("service")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    auto result =
        runToEnd({.command = std::move(command), .environment = {}, .input = input, .outputFile = ""},
                 folder_.path("admin" + std::to_string(++runs_) + ".out"));
    EXPECT_EQ(result.status, 0) << result.output;
    return result;
}

void World::startService() {
    const std::string output = folder_.path("service.out");
    fs::remove(output);
    service_ = std::make_unique<ChildProcess>(
        ChildProcess::Options{.command = {kBin + "/tarnwell-service", "--data", folder_.path("service"),
                                          "serve", "--port", std::to_string(port_)},
                              .environment = {},
                              .input = "",
                              .outputFile = output});
    ASSERT_TRUE(eventually([&] { return contentsOf(output).find("listening on") != std::string::npos; }))
        << contentsOf(output);
}

void World::stopService() {
    service_->signal(SIGKILL);
    ASSERT_TRUE(service_->wait(std::chrono::seconds(10)).has_value());
}

int World::requests(const std::string& endpoint) const {
    std::istringstream log(contentsOf(folder_.path("service.out")));
    int count = 0;
    for (std::string line; std::getline(log, line);)
        count += line.find(endpoint) != std::string::npos;
    return count;
}

void World::source(const std::string& path, const std::string& contents) {
    folder_.write("source/" + path, contents);
}

void World::import() {
    service({"share", "import", "Papers", sourceFolder()});
}

}  // namespace tarnwell::testing
