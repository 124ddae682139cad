#pragma once

#include <chrono>
#include <ctime>
#include <memory>
#include <mutex>

#include "service/Certificates.h"

namespace boost::asio::ssl {
class context;
}

namespace tarnwell::service {

/// The server's TLS settings with its present certificate. When the certificate's file has been replaced (a
/// domain was added, or it was renewed), new connections get the new one; running ones keep theirs. Any
/// thread.
class TlsContext {
  public:
    /// Throws ServiceError when the certificate cannot be loaded.
    explicit TlsContext(CertificateFiles files);
    ~TlsContext();
    /// Looks at the file at most once a second. A file that cannot be loaded leaves the former certificate in
    /// use.
    std::shared_ptr<boost::asio::ssl::context> current();

  private:
    [[nodiscard]] std::shared_ptr<boost::asio::ssl::context> load() const;

    const CertificateFiles files_;
    std::mutex lock_;
    std::shared_ptr<boost::asio::ssl::context> context_;  ///< guarded by lock_
    timespec loaded_{};                                   ///< the file's time when loaded; guarded by lock_
    std::chrono::steady_clock::time_point nextLook_;      ///< guarded by lock_
};

}  // namespace tarnwell::service
