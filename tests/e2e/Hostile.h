#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <set>
#include <string>

#include "e2e/World.h"
#include "support/Seed.h"

namespace tarnwell::testing {

/// The result of a system call: 0, or its errno.
inline int errorOf(long result) {
    return result < 0 ? errno : 0;
}

/// Open, write all, close: 0 when each of them succeeded, else the first errno.
inline int writeFile(const std::string& path, const std::string& bytes, int flags = O_CREAT | O_TRUNC) {
    const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC | flags, 0644);
    if (file < 0) return errno;
    std::size_t done = 0;
    int error = 0;
    while (error == 0 && done < bytes.size()) {
        const ssize_t count = write(file, bytes.data() + done, bytes.size() - done);
        error = errorOf(count);
        if (count > 0) done += static_cast<std::size_t>(count);
    }
    const int closing = errorOf(close(file));
    return error != 0 ? error : closing;
}

/// The whole file, or "errno N".
inline std::string readFile(const std::string& path) {
    return readRange(path, 0, 16 << 20);
}

/// Programs at their worst on the real drive: a world that is started, and what the service holds in the end.
struct HostileTest : ::testing::Test {
    void SetUp() override {
        if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no FUSE on this machine";
    }
    void begin(const World::Options& options = {}) {
        world.emplace(options);
        start(world->client());
    }
    void start(Client& client) {
        client.start();
        ASSERT_TRUE(client.waitForState("online"));
        ASSERT_TRUE(client.waitForPath("/Papers"));
    }
    Client& client() { return world->client(); }
    std::string papers(const std::string& name = "") { return client().path("/Papers/" + name); }

    /// The last change of the share that the client has taken.
    static long tickOf(Client& machine) {
        const std::string status = machine.run({"status", "--json"}).output,
                          key = "\"LastApplyedJournalTick\":";
        const auto at = status.find(key);
        return at == std::string::npos ? -1 : std::strtol(status.c_str() + at + key.size(), nullptr, 10);
    }
    /// Another machine's new version of a file; returns when the client has heard of it.
    void changeElsewhere(const std::string& name, const std::string& bytes) {
        const long before = tickOf(client());
        world->service({"put", "Papers", world->folder().write("elsewhere", bytes), "/" + name});
        ASSERT_TRUE(eventually([&] {
            client().refresh();
            return tickOf(client()) > before;
        }));
    }
    /// What the service holds, by path; "errno" instead of a tree never happens here.
    Tree exported() {
        const std::string folder = world->folder().path("exported" + std::to_string(++exports_));
        world->service({"share", "export", "Papers", folder});
        return readTree(folder);
    }
    /// Of all files below the folder.
    static std::multiset<std::string> contentsBelow(const Tree& tree, const std::string& folder) {
        std::multiset<std::string> found;
        for (const auto& [path, entry] : tree)
            if (!entry.isFolder && path.starts_with(folder + "/")) found.insert(entry.contents);
        return found;
    }
    /// Everything is sent, and drive and service agree.
    void expectDriveIsService() {
        ASSERT_TRUE(client().waitForUploads());
        Tree onService, onDrive;
        EXPECT_TRUE(eventually([&] {
            client().refresh();
            onService = synchronised(exported());
            try {
                onDrive = synchronised(readTree(papers()));
            } catch (const std::exception&) {
                return false;  // it changed meanwhile
            }
            return onService == onDrive;
        })) << "service: "
            << names(onService) << "\ndrive:   " << names(onDrive);
    }
    /// Bytes for a message: "5000 bytes o" for a run of one letter, the first ones of each run else.
    static std::string shown(const std::string& bytes) {
        if (bytes.size() < 40) return bytes;
        std::string runs;
        for (std::size_t i = 0; i < bytes.size() && runs.size() < 40; ++i)
            if (i == 0 || bytes[i] != bytes[i - 1]) runs += bytes[i];
        return std::to_string(bytes.size()) + " bytes " + runs;
    }
    static std::string shown(const std::multiset<std::string>& all) {
        std::string text;
        for (const auto& each : all)
            text += "[" + shown(each) + "] ";
        return text;
    }
    static std::string names(const Tree& tree) {
        std::string text;
        for (const auto& [path, entry] : tree)
            text += path + " (" + (entry.isFolder ? "folder" : shown(entry.contents)) + ") ";
        return text;
    }

    std::optional<World> world;

  private:
    int exports_ = 0;
};

}  // namespace tarnwell::testing
