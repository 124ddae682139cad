#include <unordered_set>

#include "service/Names.h"
#include "service/Secrets.h"
#include "service/ServiceError.h"
#include "service/SqliteMetadataStore.h"
#include "service/SqliteShareChange.h"
#include "util/TWUtils.h"

// The part of SqliteMetadataStore that deals with shares, the rights in them, and their items.
namespace tarnwell::service {

namespace {

ShareInfo shareFrom(const Rows& rows) {
    return {rows.text(0), rows.text(1), rows.text(2), static_cast<std::int32_t>(rows.integer(3))};
}

/// Refuses a name that is malformed, or taken in the domain by another share than `self`.
void checkShareName(Database& database, const std::string& name, const std::string& domainId,
                    const std::string& self) {
    if (const auto why = whyNotShareName(name); !why.empty()) throw ServiceError("share name: " + why);
    auto rows = database.query("SELECT 1 FROM shares WHERE domain = ? AND name_key = ? AND share_id <> ?",
                               domainId, keyFromPath(name), self);
    if (rows.next()) {
        throw ServiceError("the domain has a share named \"" + name +
                           "\" already (letter case does not count)");
    }
}

}  // namespace

ShareInfo SqliteMetadataStore::addShare(const std::string& name, const std::string& domainId) {
    const ShareInfo share{generateGUID(), name, domainId, 0};
    Writer writer(*this);
    Transaction transaction(*writer, Transaction::Kind::write);
    checkShareName(*writer, name, domainId, share.id);
    writer->run("INSERT INTO shares (share_id, domain, name, name_key) VALUES (?, ?, ?, ?)", share.id,
                domainId, name, keyFromPath(name));
    transaction.commit();
    return share;
}

void SqliteMetadataStore::renameShare(const std::string& shareId, const std::string& name) {
    const auto share = shareWithId(shareId);
    if (!share) throw ServiceError("there is no such share");
    Writer writer(*this);
    Transaction transaction(*writer, Transaction::Kind::write);
    checkShareName(*writer, name, share->domainId, shareId);
    writer->run("UPDATE shares SET name = ?, name_key = ? WHERE share_id = ?", name, keyFromPath(name),
                shareId);
    transaction.commit();
}

std::vector<ShareInfo> SqliteMetadataStore::shares() {
    Reader reader(*this);
    auto rows = reader->query("SELECT share_id, name, domain, tick FROM shares ORDER BY name_key");
    std::vector<ShareInfo> out;
    while (rows.next())
        out.push_back(shareFrom(rows));
    return out;
}

std::optional<ShareInfo> SqliteMetadataStore::shareWithId(std::string_view shareId) {
    Reader reader(*this);
    auto rows = reader->query("SELECT share_id, name, domain, tick FROM shares WHERE share_id = ?", shareId);
    if (!rows.next()) return std::nullopt;
    return shareFrom(rows);
}

void SqliteMetadataStore::grant(const std::string& shareId, const std::string& userId, bool readOnly) {
    Writer writer(*this);
    Transaction transaction(*writer, Transaction::Kind::write);
    writer->run(
        "INSERT INTO grants (share, user, read_only) SELECT id, ?, ? FROM shares WHERE share_id = ?"
        " ON CONFLICT (share, user) DO UPDATE SET read_only = excluded.read_only",
        userId, readOnly, shareId);
    transaction.commit();
}

bool SqliteMetadataStore::revoke(const std::string& shareId, const std::string& userId) {
    Writer writer(*this);
    Transaction transaction(*writer, Transaction::Kind::write);
    const int removed = writer->run(
        "DELETE FROM grants WHERE user = ? AND share = (SELECT id FROM shares WHERE share_id = ?)", userId,
        shareId);
    transaction.commit();
    return removed > 0;
}

std::vector<ShareAccess> SqliteMetadataStore::accessOf(const DeviceInfo& device,
                                                       const std::string& domainId) {
    constexpr std::string_view kGranted =
        "SELECT share_id, name, domain, tick, read_only, token FROM grants JOIN shares ON shares.id = "
        "grants.share"
        " LEFT JOIN acl_tokens ON acl_tokens.share = shares.id AND device = ?"
        " WHERE grants.user = ? AND domain = ? ORDER BY name_key";
    bool complete = true;
    const auto load = [&](Database& database) {
        complete = true;
        auto rows = database.query(kGranted, device.id, device.userId, domainId);
        std::vector<ShareAccess> out;
        while (rows.next()) {
            complete = complete && !rows.isNull(5);
            out.push_back({shareFrom(rows), rows.integer(4) != 0, rows.text(5)});
        }
        return out;
    };
    {
        Reader reader(*this);
        auto known = load(*reader);
        if (complete) return known;
    }
    Writer writer(*this);
    Transaction transaction(*writer, Transaction::Kind::write);
    auto access = load(*writer);
    for (auto& one : access) {
        if (!one.token.empty()) continue;
        one.token = randomToken();
        // A wipe that came between this login's check and now must win: no token for a wiped device.
        const int made = writer->run(
            "INSERT INTO acl_tokens (digest, token, share, user, device) SELECT ?, ?, shares.id, "
            "devices.user,"
            " devices.id FROM shares, devices WHERE share_id = ? AND devices.id = ? AND wipe = 0",
            digestOf(one.token), one.token, one.share.id, device.id);
        if (made == 0) return {};
    }
    transaction.commit();
    return access;
}

std::optional<AccessRight> SqliteMetadataStore::rightOfToken(std::string_view aclToken) {
    Reader reader(*this);
    auto rows = reader->query(
        "SELECT share_id, acl_tokens.user, email, device, read_only, token FROM acl_tokens"
        " JOIN shares ON shares.id = acl_tokens.share JOIN users ON users.id = acl_tokens.user"
        " JOIN grants ON grants.share = acl_tokens.share AND grants.user = acl_tokens.user WHERE digest = ?",
        digestOf(aclToken));
    if (!rows.next() || !equalSecrets(rows.view(5), aclToken)) return std::nullopt;
    return AccessRight{rows.text(0), rows.text(1), rows.text(2), rows.text(3), rows.integer(4) != 0};
}

std::optional<AccessRight> SqliteMetadataStore::rightOfDevice(const std::string& deviceId,
                                                              const std::string& shareId) {
    Reader reader(*this);
    auto rows = reader->query(
        "SELECT acl_tokens.user, email, read_only FROM acl_tokens"
        " JOIN shares ON shares.id = acl_tokens.share JOIN users ON users.id = acl_tokens.user"
        " JOIN grants ON grants.share = acl_tokens.share AND grants.user = acl_tokens.user"
        " WHERE device = ? AND share_id = ?",
        deviceId, shareId);
    if (!rows.next()) return std::nullopt;
    return AccessRight{shareId, rows.text(0), rows.text(1), deviceId, rows.integer(2) != 0};
}

std::optional<OSXCatchUpResponse> SqliteMetadataStore::changesSince(const std::string& shareId,
                                                                    std::int32_t from, std::int32_t take,
                                                                    const std::string& uploadUrl) {
    Reader reader(*this);
    Transaction snapshot(*reader, Transaction::Kind::read);
    std::int64_t row = 0;
    OSXCatchUpResponse page;
    {
        auto rows = reader->query("SELECT id, tick FROM shares WHERE share_id = ?", shareId);
        if (!rows.next()) return std::nullopt;
        row = rows.integer(0);
        page.ShareTick = static_cast<std::int32_t>(rows.integer(1));
    }
    const SharedString share(shareId);
    const SharedString url(uploadUrl);
    page.LargestTick = from;
    {
        auto rows = reader->query("SELECT " TARNWELL_ITEM_COLUMNS
                                  " FROM items WHERE share = ? AND tick > ? ORDER BY tick LIMIT ?",
                                  row, from, take);
        while (rows.next()) {
            auto item = itemFrom(rows, share);
            if (item->IsFile) item->UploadUrl = url;
            page.LargestTick = item->Tick;
            page.TwVirtualFiles.push_back(std::move(item));
        }
    }
    return page;
}

std::optional<ContentsInfo> SqliteMetadataStore::contents(std::string_view uploadName) {
    Reader reader(*this);
    return contentsNamed(*reader, uploadName);
}

std::vector<std::string> SqliteMetadataStore::unnamedContents(std::vector<std::string> names) {
    Reader reader(*this);
    std::erase_if(names, [&](const std::string& name) { return contentsNamed(*reader, name).has_value(); });
    if (names.empty()) return names;
    std::unordered_set<std::string> left(names.begin(), names.end());
    auto rows = reader->query(
        "SELECT upload_name FROM contents NOT INDEXED UNION ALL"
        " SELECT upload_name FROM items NOT INDEXED WHERE upload_name IS NOT NULL");
    while (rows.next())
        left.erase(rows.text(0));
    return {left.begin(), left.end()};
}

void SqliteMetadataStore::change(const std::string& shareId, const std::function<void(ShareChange&)>& work,
                                 Durability durability) {
    Writer writer(*this);
    const Database::Unsynced unsynced(*writer, durability == Durability::process);
    Transaction transaction(*writer, Transaction::Kind::write);
    SqliteShareChange change(*writer, shareId);
    work(change);
    change.finish();
    transaction.commit();
}

void SqliteMetadataStore::view(const std::string& shareId, const std::function<void(ShareView&)>& work) {
    Reader reader(*this);
    Transaction snapshot(*reader, Transaction::Kind::read);
    SqliteShareChange share(*reader, shareId);
    work(share);
}

std::vector<std::string> SqliteMetadataStore::retiredContents(Date before, int limit) {
    Reader reader(*this);
    auto rows =
        reader->query("SELECT upload_name FROM contents WHERE retired < ? LIMIT ?", ticks(before), limit);
    std::vector<std::string> names;
    while (rows.next())
        names.push_back(rows.text(0));
    return names;
}

void SqliteMetadataStore::forgetContents(const std::vector<std::string>& uploadNames) {
    Writer writer(*this);
    Transaction transaction(*writer, Transaction::Kind::write);
    for (const auto& name : uploadNames) {
        writer->run("DELETE FROM contents WHERE upload_name = ? AND retired IS NOT NULL", name);
    }
    transaction.commit();
}

}  // namespace tarnwell::service
