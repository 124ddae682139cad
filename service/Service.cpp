#include "service/Service.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "service/Endpoints.h"
#include "service/FileContentStore.h"
#include "service/ServiceError.h"
#include "service/SqliteMetadataStore.h"

namespace tarnwell::service {

namespace fs = std::filesystem;

namespace {

constexpr int kDropAtOnce = 500;

fs::path madeFolder(const fs::path& path) {
    std::error_code error;
    if (path.has_parent_path()) fs::create_directories(path.parent_path(), error);
    if (::mkdir(path.c_str(), 0700) == 0) {
        // Or a power cut could take the folder away with everything that was promised in it.
        const auto parent = path.has_parent_path() ? path.parent_path() : fs::path(".");
        const FileDescriptor above(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!above || ::fsync(above.get()) != 0)
            throw ServiceError("cannot sync " + parent.string() + ": " + std::strerror(errno));
    } else if (errno != EEXIST) {
        throw ServiceError("cannot make " + path.string() + ": " + std::strerror(errno));
    }
    return path;
}

std::unique_ptr<DiskReserve> reserveIn(const fs::path& folder) {
    auto reserve = std::make_unique<DiskReserve>(madeFolder(folder));
    reserve->adjust();
    reserve->needRoomToOpen();
    return reserve;
}

}  // namespace

ServiceData::ServiceData(fs::path folder)
    : folder_(fs::absolute(std::move(folder))),
      reserve_(reserveIn(folder_)),
      metadata_(std::make_unique<SqliteMetadataStore>((folder_ / "service.db").string(),
                                                      [reserve = reserve_.get()] { reserve->adjust(); })),
      contents_(std::make_unique<FileContentStore>(madeFolder(folder_ / "contents"))) {}

bool ServiceData::updateCertificates() const {
    std::vector<std::string> hosts;
    for (const auto& domain : metadata_->domains())
        hosts.push_back(domain.host);
    return ensureCertificates(certificates(), hosts);
}

int ServiceData::dropOldContents(std::chrono::hours age) const {
    if (metadata_->damaged()) return 0;
    int count = 0;
    const Date before = std::chrono::floor<TickDuration>(std::chrono::system_clock::now() - age);
    for (;;) {
        const auto names = metadata_->retiredContents(before, kDropAtOnce);
        // Files first: when this is cut off, the names are found again.
        for (const auto& name : names)
            contents_->remove(name);
        if (!names.empty()) metadata_->forgetContents(names);
        count += static_cast<int>(names.size());
        if (names.size() < kDropAtOnce) break;
    }
    // Uploads under way are no former contents.
    const auto day = std::max<std::chrono::seconds>(age, std::chrono::hours(24));
    const Date dayBefore = std::chrono::floor<TickDuration>(std::chrono::system_clock::now() - day);
    metadata_->dropTransfers(dayBefore);
    metadata_->dropLinks(dayBefore - std::chrono::days(7));
    contents_->dropUnfinished(day);
    return count;
}

void ServiceData::dropStrayContents(unsigned slice) const {
    if (metadata_->damaged()) return;
    // Whoever writes contents holds the store until their item is stored, and a day is beyond doubt.
    contents_->sweep(std::chrono::hours(24), slice, [this](std::vector<std::string> names) {
        return metadata_->unnamedContents(std::move(names));
    });
}

Service::Service(const ServiceData& data, ServerOptions options, ServiceLog& log)
    : data_(data),
      lock_(::open((data.folder() / "serve.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)),
      transfers_(data.metadata(), data.contents(), [&data] { return data.spareBytes(); }) {
    if (!lock_ || ::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
        throw ServiceError("another process serves " + data.folder().string() + " already");
    }
    for (const auto& fault : data_.metadata().faults())
        log.warning("the database is damaged, nothing is stored until it is restored: " + fault);
    (void)data_.updateCertificates();
    std::vector<Endpoint> endpoints = loginEndpoints(data_.metadata(), throttle_, log);
    for (auto& rows : {catchUpEndpoints(data_.metadata()),
                       contentEndpoints(data_.metadata(), data_.contents(), transfers_),
                       clientApiEndpoints(data_.metadata()),
                       webClientEndpoints(data_.metadata(), data_.contents(), sessions_)}) {
        endpoints.insert(endpoints.end(), rows.begin(), rows.end());
    }
    router_ = std::make_unique<Router>(data_.metadata(), log, std::move(endpoints));
    tls_ = std::make_unique<TlsContext>(data_.certificates());
    server_ = std::make_unique<Server>(std::move(options), *router_, *tls_, log);
}

Service::~Service() {
    server_->stop();
}

void Service::start() {
    server_->start();
    server_->every(std::chrono::hours(1), [this] { (void)data_.dropOldContents(kKeepOldContents); });
    // All of the store in half a day, a little at a time.
    server_->every(std::chrono::minutes(3),
                   [this] { data_.dropStrayContents(slice_++ % ContentStore::kSlices); });
    server_->every(std::chrono::hours(12), [this] { (void)data_.updateCertificates(); });
}

}  // namespace tarnwell::service
