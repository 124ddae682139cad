#include "service/SqliteMetadataStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "service/FileDescriptor.h"
#include "service/Names.h"
#include "service/Schema.h"
#include "service/Secrets.h"
#include "service/ServiceError.h"
#include "util/TWUtils.h"

namespace tarnwell::service {

namespace {

/// Idle reading connections that are kept; more are made under load and closed after.
constexpr std::size_t kIdleReaders = 8;

Date now() {
    return std::chrono::floor<TickDuration>(std::chrono::system_clock::now());
}

DomainInfo domainFrom(const Rows& rows) {
    return {rows.text(0), rows.text(1), rows.text(2), rows.text(3)};
}

UserInfo userFrom(const Rows& rows) {
    return {rows.text(0), rows.text(1), rows.text(2), rows.text(3), dateWithTicks(rows.integer(4))};
}

DeviceInfo deviceFrom(const Rows& rows) {
    return {rows.text(0),        rows.text(1), rows.text(2), rows.text(3), dateWithTicks(rows.integer(4)),
            rows.integer(5) != 0};
}

template <class T, class Make>
std::optional<T> first(Rows rows, Make make) {
    if (!rows.next()) return std::nullopt;
    return make(rows);
}

template <class T, class Make>
std::vector<T> all(Rows rows, Make make) {
    std::vector<T> out;
    while (rows.next())
        out.push_back(make(rows));
    return out;
}

}  // namespace

SqliteMetadataStore::Reader::Reader(SqliteMetadataStore& store) : store_(store) {
    {
        const std::lock_guard lock(store_.pool_);
        if (!store_.readers_.empty()) {
            connection_ = std::move(store_.readers_.back());
            store_.readers_.pop_back();
        }
    }
    if (!connection_) connection_ = std::make_unique<Database>(store_.path_, &store_.damaged_);
}

SqliteMetadataStore::Reader::~Reader() {
    const std::lock_guard lock(store_.pool_);
    if (store_.readers_.size() < kIdleReaders) store_.readers_.push_back(std::move(connection_));
}

SqliteMetadataStore::Writer::Writer(SqliteMetadataStore& store)
    : lock_(store.writing_), connection_(*store.writer_) {
    if (store.damaged_) throw DamagedError("the database is damaged: restore it from a backup");
    if (store.beforeChange_) store.beforeChange_();
}

SqliteMetadataStore::SqliteMetadataStore(std::string path, std::function<void()> beforeChange)
    : path_(std::move(path)), beforeChange_(std::move(beforeChange)) {
    // The side files take over the mode of the main one, which therefore must be private from its first byte
    // on.
    const mode_t mask = ::umask(0077);
    try {
        writer_ = std::make_unique<Database>(path_, &damaged_);
        migrateSchema(*writer_);
        syncRecovered();
    } catch (...) {
        ::umask(mask);
        throw;
    }
    ::umask(mask);
}

SqliteMetadataStore::~SqliteMetadataStore() = default;

void SqliteMetadataStore::syncRecovered() const {
    const FileDescriptor log(::open((path_ + "-wal").c_str(), O_RDONLY | O_CLOEXEC));
    if (log && ::fdatasync(log.get()) != 0) throw ServiceError("cannot sync the log of " + path_);
}

std::vector<std::string> SqliteMetadataStore::faults() {
    std::vector<std::string> found;
    try {
        Reader reader(*this);
        auto rows = reader->query("PRAGMA quick_check(10)");
        while (rows.next())
            if (rows.view(0) != "ok") found.push_back(rows.text(0));
    } catch (const DamagedError& error) {
        found.emplace_back(error.what());
    }
    if (!found.empty()) damaged_ = true;
    return found;
}

DomainInfo SqliteMetadataStore::addDomain(const std::string& name, const std::string& address) {
    if (const auto why = whyNotShareName(name); !why.empty()) throw ServiceError("domain name: " + why);
    if (const auto why = whyNotAddress(address); !why.empty()) throw ServiceError("address: " + why);
    const DomainInfo domain{generateGUID(), name, lowerAscii(address.substr(0, address.find(':'))), address};
    Writer writer(*this);
    Transaction transaction(*writer, Transaction::Kind::write);
    if (writer->query("SELECT 1 FROM domains WHERE name = ?", name).next()) {
        throw ServiceError("there is a domain named \"" + name + "\" already");
    }
    if (writer->query("SELECT 1 FROM domains WHERE host = ?", domain.host).next()) {
        throw ServiceError("another domain has the address \"" + domain.host +
                           "\" already (the port does not count)");
    }
    writer->run("INSERT INTO domains (id, name, host, address) VALUES (?, ?, ?, ?)", domain.id, name,
                domain.host, address);
    transaction.commit();
    return domain;
}

std::vector<DomainInfo> SqliteMetadataStore::domains() {
    Reader reader(*this);
    return all<DomainInfo>(reader->query("SELECT id, name, host, address FROM domains ORDER BY name"),
                           domainFrom);
}

std::optional<DomainInfo> SqliteMetadataStore::domainWithId(std::string_view id) {
    Reader reader(*this);
    return first<DomainInfo>(reader->query("SELECT id, name, host, address FROM domains WHERE id = ?", id),
                             domainFrom);
}

std::optional<DomainInfo> SqliteMetadataStore::domainNamed(std::string_view name) {
    Reader reader(*this);
    return first<DomainInfo>(
        reader->query("SELECT id, name, host, address FROM domains WHERE name = ?", name), domainFrom);
}

std::optional<DomainInfo> SqliteMetadataStore::domainOfHost(std::string_view host) {
    Reader reader(*this);
    return first<DomainInfo>(
        reader->query("SELECT id, name, host, address FROM domains WHERE host = ?", lowerAscii(host)),
        domainFrom);
}

UserInfo SqliteMetadataStore::addUser(const std::string& email, const std::string& domainId,
                                      const std::string& password) {
    if (const auto why = whyNotEmail(email); !why.empty()) throw ServiceError("\"" + email + "\": " + why);
    const UserInfo user{generateGUID(), email, domainId, password, now()};
    Writer writer(*this);
    Transaction transaction(*writer, Transaction::Kind::write);
    const std::string key = keyFromPath(email);
    if (writer->query("SELECT 1 FROM users WHERE email_key = ?", key).next()) {
        throw ServiceError("there is a user " + email + " already");
    }
    writer->run(
        "INSERT INTO users (id, email, email_key, domain, password, created) VALUES (?, ?, ?, ?, ?, ?)",
        user.id, email, key, domainId, password, ticks(user.created));
    transaction.commit();
    return user;
}

void SqliteMetadataStore::setPassword(const std::string& userId, const std::string& password) {
    Writer writer(*this);
    Transaction transaction(*writer, Transaction::Kind::write);
    writer->run("UPDATE users SET password = ? WHERE id = ?", password, userId);
    writer->run("DELETE FROM domain_tokens WHERE device IN (SELECT id FROM devices WHERE user = ?)", userId);
    writer->run("DELETE FROM acl_tokens WHERE user = ?", userId);
    transaction.commit();
}

std::vector<UserInfo> SqliteMetadataStore::users() {
    Reader reader(*this);
    return all<UserInfo>(
        reader->query("SELECT id, email, domain, password, created FROM users ORDER BY email_key"), userFrom);
}

std::optional<UserInfo> SqliteMetadataStore::userWithEmail(std::string_view email) {
    Reader reader(*this);
    return first<UserInfo>(
        reader->query("SELECT id, email, domain, password, created FROM users WHERE email_key = ?",
                      keyFromPath(email)),
        userFrom);
}

std::vector<DomainInfo> SqliteMetadataStore::domainsOf(const UserInfo& user) {
    Reader reader(*this);
    return all<DomainInfo>(
        reader->query(
            "SELECT id, name, host, address FROM domains WHERE id = ?1 OR id IN"
            " (SELECT shares.domain FROM grants JOIN shares ON shares.id = grants.share WHERE user = ?2)"
            " ORDER BY id <> ?1, name",
            user.domainId, user.id),
        domainFrom);
}

DeviceInfo SqliteMetadataStore::addDevice(const std::string& userId, const std::string& name,
                                          const std::string& system) {
    const DeviceInfo device{generateGUID(), userId, name, system, now(), false};
    Writer writer(*this);
    Transaction transaction(*writer, Transaction::Kind::write);
    writer->run("INSERT INTO devices (id, user, name, system, created) VALUES (?, ?, ?, ?, ?)", device.id,
                userId, name, system, ticks(device.created));
    transaction.commit();
    return device;
}

std::vector<DeviceInfo> SqliteMetadataStore::devicesOf(const std::string& userId) {
    Reader reader(*this);
    return all<DeviceInfo>(
        reader->query(
            "SELECT id, user, name, system, created, wipe FROM devices WHERE user = ? ORDER BY created",
            userId),
        deviceFrom);
}

std::optional<DeviceInfo> SqliteMetadataStore::device(const std::string& userId, std::string_view deviceId) {
    Reader reader(*this);
    return first<DeviceInfo>(
        reader->query("SELECT id, user, name, system, created, wipe FROM devices WHERE id = ? AND user = ?",
                      deviceId, userId),
        deviceFrom);
}

int SqliteMetadataStore::wipeDevices(const std::string& userId, const std::optional<std::string>& deviceId) {
    Writer writer(*this);
    Transaction transaction(*writer, Transaction::Kind::write);
    const int marked = writer->run("UPDATE devices SET wipe = 1 WHERE user = ?1 AND (?2 IS NULL OR id = ?2)",
                                   userId, deviceId);
    writer->run("DELETE FROM domain_tokens WHERE device IN (SELECT id FROM devices WHERE user = ? AND wipe)",
                userId);
    writer->run("DELETE FROM acl_tokens WHERE device IN (SELECT id FROM devices WHERE user = ? AND wipe)",
                userId);
    transaction.commit();
    return marked;
}

std::string SqliteMetadataStore::domainToken(const std::string& deviceId, const std::string& domainId) {
    constexpr std::string_view kFind = "SELECT token FROM domain_tokens WHERE device = ? AND domain = ?";
    const auto text = [](const Rows& rows) { return rows.text(0); };
    {
        Reader reader(*this);
        if (auto token = first<std::string>(reader->query(kFind, deviceId, domainId), text)) return *token;
    }
    Writer writer(*this);
    Transaction transaction(*writer, Transaction::Kind::write);
    // The same device may be logging in twice at this moment.
    if (auto token = first<std::string>(writer->query(kFind, deviceId, domainId), text)) return *token;
    const std::string token = randomToken();
    writer->run("INSERT INTO domain_tokens (digest, token, device, domain) VALUES (?, ?, ?, ?)",
                digestOf(token), token, deviceId, domainId);
    transaction.commit();
    return token;
}

std::optional<DeviceInfo> SqliteMetadataStore::deviceOfToken(std::string_view email,
                                                             const std::string& domainId,
                                                             std::string_view token) {
    Reader reader(*this);
    auto rows = reader->query(
        "SELECT devices.id, devices.user, devices.name, system, devices.created, wipe, token, email_key"
        " FROM domain_tokens JOIN devices ON devices.id = device JOIN users ON users.id = devices.user"
        " WHERE digest = ? AND domain_tokens.domain = ?",
        digestOf(token), domainId);
    if (!rows.next() || !equalSecrets(rows.view(6), token) || rows.view(7) != keyFromPath(email))
        return std::nullopt;
    DeviceInfo device = deviceFrom(rows);
    return device.wipe ? std::nullopt : std::optional(std::move(device));
}

}  // namespace tarnwell::service
