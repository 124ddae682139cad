// Mounts a drive whose contents are all cached, for measuring the file system alone: bench/drive runs
// programs on it.
//   drive_mount MOUNTPOINT CACHE-ROOT BIG-FILE-BYTES
// Prints "mounted" and stays until SIGTERM. The share "/bench" holds "big" and the folder "many" of 10,000
// files.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "bench/Records.h"
#include "drive/FuseMount.h"
#include "drive/TWFuseFileSystem.h"
#include "platform/BackgroundQueue.h"
#include "util/TWLogger.h"

namespace tarnwell::bench {
namespace {

class AllCached final : public TWFuseFileSystem::Mediator {
  public:
    bool isFileDownloaded(const TWVirtualFilePtr&) override { return true; }
    std::optional<std::string> downloadFileChunk(const TWVirtualFilePtr&, std::int64_t,
                                                 std::int64_t) override {
        return std::nullopt;
    }
    [[nodiscard]] bool excessiveLogging() const override { return false; }
};

void fill(const std::string& path, std::int64_t bytes) {
    std::ofstream out(path, std::ios::binary);
    static const std::string block = [] {
        std::string bytes(1 << 20, '\0');
        for (std::size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>(i * 2654435761u >> 13);
        return bytes;
    }();
    for (std::int64_t left = bytes; left > 0; left -= static_cast<std::int64_t>(block.size())) {
        out.write(block.data(), std::min<std::int64_t>(left, static_cast<std::int64_t>(block.size())));
    }
    if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

void addTree(TWMetadataStorage& store, const CacheLayout& layout, std::int64_t bigBytes) {
    const auto share = makeShare("S-bench", "bench");
    const auto lock = store.beginWriteStorage();
    store.insertShare(share);
    store.createFolderForShare(*share);
    const auto add = [&](const std::string& id, const std::string& parent, const std::string& name,
                         bool isFile, std::int64_t bytes) {
        const auto file = makeRecord(id, parent, name, "S-bench", isFile, 1);
        file->EndOfFile = file->AllocationSize = bytes;
        store.addFileMetadata(file);
        if (isFile) fill(layout.cachePathForFile(*file), bytes);
    };
    add("Fbig", "S-bench", "big", true, bigBytes);
    add("Fmany", "S-bench", "many", false, 0);
    for (int i = 0; i < 10'000; ++i)
        add(format("F%05d", i), "Fmany", format("document-%05d.odt", i), true, 100);
}

int run(const std::string& mountPoint, const std::string& root, std::int64_t bigBytes) {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);

    const CacheLayout layout({root, root, root, "cache", ""});
    layout.initCachePathes();
    TWInitLogs(layout.logsPath());
    SystemClock clock;
    BackgroundQueue background(8);
    TWMetadataStorage store({layout, clock, background, [] { return std::string(); }, [] {}});
    addTree(store, layout, bigBytes);

    AllCached contents;
    bool failed = false;
    FuseMount::Notifications notifications;
    notifications.didMount = [] { std::puts("mounted"); };
    notifications.mountDidFailed = [&](const std::string& reason) {
        std::fprintf(stderr, "not mounted: %s\n", reason.c_str());
        failed = true;
    };
    notifications.didUnmount = [] {};
    FuseMount mount(std::make_shared<TWFuseFileSystem>(store, layout, background, contents), notifications);
    mount.mount(mountPoint, {"sync_read", "volname=bench", "direct_io", "nolocalcaches", "novncache", "local",
                             "volicon="});
    std::fflush(stdout);
    if (!failed) {
        int signal = 0;
        sigwait(&ends, &signal);
        mount.unmount(true);
    }
    TWClose();
    return failed ? 1 : 0;
}

}  // namespace
}  // namespace tarnwell::bench

int main(int count, char** words) {
    if (count != 4) {
        std::fprintf(stderr, "usage: %s MOUNTPOINT CACHE-ROOT BIG-FILE-BYTES\n", words[0]);
        return 2;
    }
    try {
        return tarnwell::bench::run(words[1], words[2], std::atoll(words[3]));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
