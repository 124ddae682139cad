#include "service/Schema.h"

#include "service/ServiceError.h"

namespace tarnwell::service {

namespace {

/// Times are ticks of 100 ns since 0001-01-01 UTC. Tokens are found by their SHA-256 digest, so that the time
/// of an index look-up says nothing about a token. Deleted items keep their rows: catch-up tells them as
/// deletions.
constexpr const char* kVersion1 = R"(
CREATE TABLE domains (
    id TEXT PRIMARY KEY,
    name TEXT NOT NULL UNIQUE,
    host TEXT NOT NULL UNIQUE,            -- lower case, without port: what Host headers are matched with
    address TEXT NOT NULL                 -- as given to clients; a port may follow
) STRICT;

CREATE TABLE users (
    id TEXT PRIMARY KEY,
    email TEXT NOT NULL,
    email_key TEXT NOT NULL UNIQUE,       -- lower case
    domain TEXT NOT NULL REFERENCES domains(id),
    password TEXT NOT NULL,               -- scrypt, with its parameters and salt
    created INTEGER NOT NULL
) STRICT;

CREATE TABLE devices (
    id TEXT PRIMARY KEY,
    user TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    name TEXT NOT NULL,
    system TEXT NOT NULL,
    created INTEGER NOT NULL,
    wipe INTEGER NOT NULL DEFAULT 0
) STRICT;
CREATE INDEX devices_of_user ON devices(user);

CREATE TABLE domain_tokens (
    digest TEXT PRIMARY KEY,
    token TEXT NOT NULL,
    device TEXT NOT NULL REFERENCES devices(id) ON DELETE CASCADE,
    domain TEXT NOT NULL REFERENCES domains(id) ON DELETE CASCADE,
    UNIQUE (device, domain)
) STRICT;

CREATE TABLE shares (
    id INTEGER PRIMARY KEY,
    share_id TEXT NOT NULL UNIQUE,
    domain TEXT NOT NULL REFERENCES domains(id),
    name TEXT NOT NULL,
    name_key TEXT NOT NULL,
    tick INTEGER NOT NULL DEFAULT 0,      -- the last tick that was given; the first one is 1
    UNIQUE (domain, name_key)
) STRICT;

CREATE TABLE grants (
    share INTEGER NOT NULL REFERENCES shares(id) ON DELETE CASCADE,
    user TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    read_only INTEGER NOT NULL,
    PRIMARY KEY (share, user)
) STRICT;
CREATE INDEX grants_of_user ON grants(user);

CREATE TABLE acl_tokens (
    digest TEXT PRIMARY KEY,
    token TEXT NOT NULL,
    share INTEGER NOT NULL,
    user TEXT NOT NULL,
    device TEXT NOT NULL REFERENCES devices(id) ON DELETE CASCADE,
    UNIQUE (device, share),
    FOREIGN KEY (share, user) REFERENCES grants(share, user) ON DELETE CASCADE
) STRICT;
CREATE INDEX acl_tokens_of_grant ON acl_tokens(share, user);

CREATE TABLE items (
    id INTEGER PRIMARY KEY,
    share INTEGER NOT NULL REFERENCES shares(id),
    internal_name TEXT NOT NULL UNIQUE,
    parent TEXT NOT NULL,                 -- internal name of the folder, or the share's share_id
    public_name TEXT NOT NULL,
    name_key TEXT NOT NULL,               -- decomposed and lower case
    owner TEXT,
    upload_name TEXT,
    last_upload_name TEXT,
    hash TEXT,
    tick INTEGER NOT NULL,
    share_tick INTEGER NOT NULL,
    update_tick INTEGER NOT NULL,
    create_tick INTEGER NOT NULL,
    size INTEGER NOT NULL,
    creation_time INTEGER NOT NULL,
    access_time INTEGER NOT NULL,
    write_time INTEGER NOT NULL,
    attributes INTEGER,
    permissions INTEGER,
    deleted INTEGER NOT NULL,
    is_file INTEGER NOT NULL
) STRICT;
CREATE UNIQUE INDEX items_by_tick ON items(share, tick);
CREATE UNIQUE INDEX items_by_name ON items(share, parent, name_key) WHERE deleted = 0;

CREATE TABLE contents (
    upload_name TEXT PRIMARY KEY,
    share INTEGER NOT NULL REFERENCES shares(id),
    size INTEGER NOT NULL,
    hash TEXT NOT NULL,
    retired INTEGER                       -- since when no item names it; such contents are dropped later
) STRICT;
CREATE INDEX contents_retired ON contents(retired) WHERE retired IS NOT NULL;
)";

/// Whose the newest contents and the present place of an item are, so that a device's change can be told from
/// one that was made without knowledge of another's; uploads under way; links.
constexpr const char* kVersion2 = R"(
ALTER TABLE items ADD COLUMN writer TEXT NOT NULL DEFAULT '';         -- a device; empty: the service itself
ALTER TABLE items ADD COLUMN written_before INTEGER NOT NULL DEFAULT -1;
ALTER TABLE items ADD COLUMN mover TEXT NOT NULL DEFAULT '';
ALTER TABLE items ADD COLUMN place_tick INTEGER NOT NULL DEFAULT -1;
ALTER TABLE items ADD COLUMN placed_before INTEGER NOT NULL DEFAULT -1;
UPDATE items SET place_tick = tick;

CREATE TABLE transfers (
    digest TEXT PRIMARY KEY,
    share INTEGER NOT NULL REFERENCES shares(id) ON DELETE CASCADE,
    device TEXT NOT NULL REFERENCES devices(id) ON DELETE CASCADE,
    event INTEGER NOT NULL,               -- what the device asked for: create or update
    record TEXT NOT NULL,                 -- the file record of the event, JSON
    touched INTEGER NOT NULL,
    done INTEGER NOT NULL                 -- the contents are in the tree; kept for chunks that are repeated
) STRICT;
CREATE INDEX transfers_by_time ON transfers(touched);

CREATE TABLE links (
    number INTEGER PRIMARY KEY AUTOINCREMENT,
    digest TEXT NOT NULL UNIQUE,
    kind INTEGER NOT NULL,
    user TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    device TEXT REFERENCES devices(id) ON DELETE CASCADE,
    domain TEXT NOT NULL REFERENCES domains(id) ON DELETE CASCADE,
    share INTEGER,
    item TEXT NOT NULL,
    parameter TEXT NOT NULL,
    created INTEGER NOT NULL,
    expires INTEGER,                      -- null: never
    uses INTEGER NOT NULL DEFAULT 0,
    max_uses INTEGER,                     -- null: any number
    revoked INTEGER NOT NULL DEFAULT 0,
    FOREIGN KEY (share, user) REFERENCES grants(share, user) ON DELETE CASCADE
) STRICT;
CREATE INDEX links_of_grant ON links(share, user);
)";

/// Tells a repeated upload from one of the same name and bytes that is meant for another item.
constexpr const char* kVersion3 = R"(
ALTER TABLE contents ADD COLUMN item TEXT NOT NULL DEFAULT '';        -- internal name; empty: not known
)";

/// Step n brings a database of version n to n + 1. Released steps never change; new ones follow at the end.
constexpr const char* kSteps[] = {kVersion1, kVersion2, kVersion3};
constexpr std::int64_t kVersion = std::size(kSteps);

std::int64_t versionOf(Database& database) {
    auto rows = database.query("PRAGMA user_version");
    return rows.next() ? rows.integer(0) : 0;
}

}  // namespace

void migrateSchema(Database& database) {
    if (versionOf(database) == kVersion) return;
    Transaction transaction(database, Transaction::Kind::write);
    // Asked again under the write lock: another process may have been faster.
    const std::int64_t version = versionOf(database);
    if (version > kVersion) {
        throw ServiceError("the data folder was written by a newer version (schema " +
                           std::to_string(version) + ", this program knows " + std::to_string(kVersion) +
                           ")");
    }
    for (std::int64_t step = version; step < kVersion; ++step)
        database.execute(kSteps[step]);
    database.execute(("PRAGMA user_version = " + std::to_string(kVersion)).c_str());
    transaction.commit();
}

}  // namespace tarnwell::service
