#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>

namespace tarnwell::service {

/// The room on the disk that is promised to uploads under way, so that what was let in can be completed:
/// uploads that share too little room would all fail near their end.
///
/// A promise ends with its upload, or when nothing came for ten minutes. Promises are lost with the process;
/// an upload that continues is promised room again. Any thread.
class UploadSpace {
  public:
    /// `room`: bytes that uploads may fill at this moment.
    explicit UploadSpace(std::function<std::int64_t()> room) : room_(std::move(room)) {}

    /// Promises the upload `bytes` from now on, instead of what it was promised before. False, and nothing
    /// has changed, when the disk has not as much beside the other promises.
    bool promise(const std::string& digest, std::int64_t bytes);
    /// Of what was promised so much is still to come.
    void left(const std::string& digest, std::int64_t bytes);
    void end(const std::string& digest);

  private:
    using Clock = std::chrono::steady_clock;
    struct Promise {
        std::string digest;
        std::int64_t bytes;
        Clock::time_point used;
    };
    void drop(const std::string& digest);
    void add(const std::string& digest, std::int64_t bytes);

    const std::function<std::int64_t()> room_;

    std::mutex lock_;
    std::list<Promise> promises_;  ///< latest used last; guarded by lock_
    std::unordered_map<std::string, std::list<Promise>::iterator> byDigest_;  ///< guarded by lock_
    std::int64_t total_ = 0;                                                  ///< guarded by lock_
};

}  // namespace tarnwell::service
