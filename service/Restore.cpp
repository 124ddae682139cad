#include "service/Restore.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>
#include <map>

#include "service/Database.h"
#include "service/FileDescriptor.h"
#include "service/Schema.h"
#include "service/Service.h"
#include "service/ServiceError.h"

namespace tarnwell::service {

namespace fs = std::filesystem;

namespace {

/// More changes than a share can have had since a backup, and a hundredth of the ticks that there are.
constexpr std::int64_t kLift = 1 << 24;

[[noreturn]] void fail(const std::string& what, const fs::path& path) {
    throw ServiceError(what + " " + path.string() + ": " + std::strerror(errno));
}

fs::path with(fs::path path, const char* suffix) {
    path += suffix;
    return path;
}

void syncPath(const fs::path& path) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file || ::fsync(file.get()) != 0) fail("cannot sync", path);
}

FileDescriptor lockOf(const fs::path& path, const char* what) {
    FileDescriptor lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lock) fail("cannot open", path);
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) throw ServiceError(std::string(what) + " is running");
    return lock;
}

/// By share; empty where the present database cannot tell.
std::map<std::string, std::int64_t> presentTicks(const fs::path& path) {
    std::map<std::string, std::int64_t> ticks;
    if (!fs::exists(path)) return ticks;
    try {
        Database database(path.string());
        auto rows = database.query("SELECT share_id, tick FROM shares");
        while (rows.next())
            ticks[rows.text(0)] = rows.integer(1);
    } catch (const ServiceError&) {
        // Damaged: that is what backups are for.
    }
    return ticks;
}

void needWhole(Database& database) {
    auto rows = database.query("PRAGMA integrity_check(1)");
    if (rows.next() && rows.view(0) != "ok") throw ServiceError("the copy is damaged: " + rows.text(0));
}

void liftTicks(Database& database, const std::map<std::string, std::int64_t>& present) {
    struct Share {
        std::int64_t row;
        std::string id;
        std::int64_t tick;
    };
    std::vector<Share> shares;
    {
        auto rows = database.query("SELECT id, share_id, tick FROM shares");
        while (rows.next())
            shares.push_back({rows.integer(0), rows.text(1), rows.integer(2)});
    }
    for (const auto& share : shares) {
        const auto known = present.find(share.id);
        const std::int64_t since =
            known == present.end() ? 0 : std::max<std::int64_t>(0, known->second - share.tick);
        const std::int64_t lift = std::max(since + kLift, share.tick);
        if (share.tick > std::numeric_limits<std::int32_t>::max() - lift)
            throw ServiceError("the share " + share.id + " has used up its change numbers");
        // The new ticks are all above the old ones, so that none is given twice on the way. Those of contents
        // stay: what a device knew of them it knows still.
        database.run("UPDATE items SET tick = tick + ?, share_tick = share_tick + ? WHERE share = ?", lift,
                     lift, share.row);
        database.run("UPDATE shares SET tick = tick + ? WHERE id = ?", lift, share.row);
    }
}

/// A whole, lifted database of one file.
void prepare(const fs::path& copy, const fs::path& prepared,
             const std::map<std::string, std::int64_t>& present) {
    for (const char* suffix : {"", "-wal", "-shm"})
        fs::remove(with(prepared, suffix));
    std::error_code error;
    if (!fs::copy_file(copy, prepared, error)) throw ServiceError("cannot copy " + copy.string());
    if (fs::exists(with(copy, "-wal"))) fs::copy_file(with(copy, "-wal"), with(prepared, "-wal"));
    fs::permissions(prepared, fs::perms::owner_read | fs::perms::owner_write);
    {
        Database database(prepared.string());
        needWhole(database);
        migrateSchema(database);
        Transaction transaction(database, Transaction::Kind::write);
        liftTicks(database, present);
        database.execute("DELETE FROM transfers");
        transaction.commit();
        database.execute("PRAGMA journal_mode=DELETE");
    }
    syncPath(prepared);
}

}  // namespace

void restoreDatabase(const fs::path& folder, const fs::path& copy, std::ostream& out) {
    const fs::path present = folder / "service.db";
    if (!fs::is_regular_file(copy)) throw ServiceError("there is no file " + copy.string());
    if (fs::exists(present) && fs::equivalent(copy, present))
        throw ServiceError("that is the present database, no copy");
    // The folders, and a database of the present schema, also where nothing is left.
    if (!fs::exists(present)) (void)ServiceData(folder).metadata();
    const auto serving = lockOf(folder / "serve.lock", "a server");
    const auto importing = lockOf(folder / "contents" / "holds", "an import");

    const fs::path prepared = folder / "service.db.prepared";
    prepare(copy, prepared, presentTicks(present));
    // The log of the present database must be gone before another one takes the name that it belongs to.
    const auto seconds = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    const fs::path replaced =
        folder / ("service.db.replaced-" + std::to_string(seconds.time_since_epoch().count()));
    fs::create_hard_link(present, replaced);
    for (const char* suffix : {"-wal", "-shm"})
        if (fs::exists(with(present, suffix))) fs::rename(with(present, suffix), with(replaced, suffix));
    syncPath(folder);
    fs::rename(prepared, present);
    syncPath(folder);

    const ServiceData data(folder);
    std::vector<std::string> names;
    for (unsigned slice = 0; slice < ContentStore::kSlices; ++slice) {
        const auto some = data.contents().namesOlderThan(std::chrono::seconds(0), slice);
        names.insert(names.end(), some.begin(), some.end());
    }
    const auto unclaimed = data.metadata().unnamedContents(std::move(names));
    for (const auto& name : unclaimed)
        data.contents().setAside(name);
    out << "restored " << data.metadata().shares().size() << " shares; " << unclaimed.size()
        << " contents that they do not name are in contents/unclaimed\n";
}

}  // namespace tarnwell::service
