// 1,000 small requests to one host, one after the other and from eight threads: how many handshakes, how
// long.
//   http_bench URL CA-FILE
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "platform/CurlUrlLoader.h"

namespace {

using tarnwell::CurlUrlLoader;

/// False when a request got no reply at all; any HTTP status will do here.
bool measure(const char* url, const char* authority, int threads) {
    constexpr int kRequests = 1000;
    CurlUrlLoader::Options options;
    options.certificateAuthority = authority;
    CurlUrlLoader loader(options);
    tarnwell::UrlRequest request;
    request.url = url;
    std::atomic<int> failed{0};
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> workers;
    for (int i = 0; i < threads; ++i) {
        workers.emplace_back([&, share = kRequests / threads] {
            for (int n = 0; n < share; ++n)
                failed += loader.sendSynchronously(request).status == 0;
        });
    }
    for (auto& worker : workers)
        worker.join();
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    std::printf("%d requests, %d thread(s): %.3f s, %llu handshake(s), %d failed\n", kRequests, threads,
                seconds.count(), static_cast<unsigned long long>(loader.connectionsOpened()), failed.load());
    return failed == 0;
}

}  // namespace

int main(int count, char** words) {
    if (count != 3) {
        std::fprintf(stderr, "usage: %s URL CA-FILE\n", words[0]);
        return 2;
    }
    const bool alone = measure(words[1], words[2], 1);
    const bool together = measure(words[1], words[2], 8);
    return alone && together ? 0 : 1;
}
