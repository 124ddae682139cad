#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>

#include "service/Certificates.h"
#include "service/ContentStore.h"
#include "service/DiskReserve.h"
#include "service/FileDescriptor.h"
#include "service/LoginThrottle.h"
#include "service/MetadataStore.h"
#include "service/Server.h"
#include "service/ServiceLog.h"
#include "service/Transfers.h"
#include "service/WebSessions.h"

namespace tarnwell::service {

/// A data folder: what the commands and the server work on. Several processes may have one open.
///
/// Layout: service.db (metadata), contents/ (bytes of files), tls/ (certificates), serve.lock (held by the
/// server), reserve (DiskReserve).
class ServiceData {
  public:
    /// Makes the folder (mode 0700) and what is missing in it. Throws ServiceError.
    explicit ServiceData(std::filesystem::path folder);

    [[nodiscard]] MetadataStore& metadata() const { return *metadata_; }
    [[nodiscard]] ContentStore& contents() const { return *contents_; }
    [[nodiscard]] CertificateFiles certificates() const { return CertificateFiles(folder_ / "tls"); }
    [[nodiscard]] const std::filesystem::path& folder() const { return folder_; }
    /// Brings the server's certificate up to the domains there are; true when it was made anew.
    [[nodiscard]] bool updateCertificates() const;
    /// What uploads have to leave of the free disk, for the database.
    [[nodiscard]] std::int64_t spareBytes() const { return reserve_->missing(); }
    /// Drops contents that no item has named for `age`, and uploads that nobody went on with since. The
    /// number of contents dropped.
    int dropOldContents(std::chrono::hours age) const;
    /// Drops contents that never came to an item because their writer was cut off, in one slice of the store.
    void dropStrayContents(unsigned slice) const;

  private:
    const std::filesystem::path folder_;
    std::unique_ptr<DiskReserve> reserve_;
    std::unique_ptr<MetadataStore> metadata_;
    std::unique_ptr<ContentStore> contents_;
};

/// How long contents of former versions stay readable: a device that was away may still ask for them.
inline constexpr std::chrono::hours kKeepOldContents{24};

/// The running service on a data folder: wires stores, endpoints and server. One per data folder and machine.
class Service {
  public:
    /// `data` is borrowed. Throws ServiceError, also when another process serves this folder.
    Service(const ServiceData& data, ServerOptions options, ServiceLog& log);
    /// Stops.
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    void start();
    [[nodiscard]] std::uint16_t port() const { return server_->port(); }
    void stop() { server_->stop(); }

  private:
    const ServiceData& data_;
    FileDescriptor lock_;
    LoginThrottle throttle_;
    Transfers transfers_;
    WebSessions sessions_;
    unsigned slice_ = 0;  ///< of the next sweep for stray contents; that task only
    std::unique_ptr<Router> router_;
    std::unique_ptr<TlsContext> tls_;
    std::unique_ptr<Server> server_;
};

}  // namespace tarnwell::service
