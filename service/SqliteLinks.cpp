#include "service/SqliteMetadataStore.h"
#include "util/TWUtils.h"

// The part of SqliteMetadataStore that deals with links.
namespace tarnwell::service {

namespace {

#define TARNWELL_LINK_COLUMNS                                                                         \
    "number, digest, kind, links.user, email, device, links.domain, share_id, item, parameter,"       \
    " links.created, expires, uses, max_uses, revoked FROM links JOIN users ON users.id = links.user" \
    " LEFT JOIN shares ON shares.id = links.share"

LinkInfo linkFrom(const Rows& rows) {
    LinkInfo link;
    link.number = rows.integer(0);
    link.digest = rows.text(1);
    link.kind = static_cast<std::int32_t>(rows.integer(2));
    link.userId = rows.text(3);
    link.email = rows.text(4);
    link.deviceId = rows.text(5);
    link.domainId = rows.text(6);
    link.shareId = rows.text(7);
    link.item = rows.text(8);
    link.parameter = rows.text(9);
    link.created = dateWithTicks(rows.integer(10));
    if (!rows.isNull(11)) link.expires = dateWithTicks(rows.integer(11));
    link.uses = rows.integer(12);
    link.maxUses = rows.optionalInteger(13);
    link.revoked = rows.integer(14) != 0;
    return link;
}

std::int64_t nowTicks() {
    return ticks(std::chrono::floor<TickDuration>(std::chrono::system_clock::now()));
}

}  // namespace

void SqliteMetadataStore::addLink(const LinkInfo& link) {
    const auto expires = link.expires ? std::optional(ticks(*link.expires)) : std::nullopt;
    const auto device = link.deviceId.empty() ? std::nullopt : std::optional(link.deviceId);
    Writer writer(*this);
    Transaction transaction(*writer, Transaction::Kind::write);
    writer->run(
        "INSERT INTO links (digest, kind, user, device, domain, share, item, parameter, created, expires,"
        " max_uses) VALUES (?, ?, ?, ?, ?, (SELECT id FROM shares WHERE share_id = ?), ?, ?, ?, ?, ?)",
        link.digest, link.kind, link.userId, device, link.domainId, link.shareId, link.item, link.parameter,
        ticks(link.created), expires, link.maxUses);
    transaction.commit();
}

std::optional<LinkInfo> SqliteMetadataStore::link(std::string_view digest) {
    Reader reader(*this);
    auto rows = reader->query("SELECT " TARNWELL_LINK_COLUMNS " WHERE digest = ?", digest);
    if (!rows.next()) return std::nullopt;
    return linkFrom(rows);
}

std::vector<LinkInfo> SqliteMetadataStore::links() {
    Reader reader(*this);
    auto rows = reader->query("SELECT " TARNWELL_LINK_COLUMNS " ORDER BY number");
    std::vector<LinkInfo> out;
    while (rows.next())
        out.push_back(linkFrom(rows));
    return out;
}

bool SqliteMetadataStore::revokeLink(std::int64_t number) {
    Writer writer(*this);
    return writer->run("UPDATE links SET revoked = 1 WHERE number = ?", number) > 0;
}

bool SqliteMetadataStore::useLink(std::string_view digest) {
    Writer writer(*this);
    const Database::Unsynced unsynced(*writer, true);
    return writer->run(
               "UPDATE links SET uses = uses + 1 WHERE digest = ? AND revoked = 0"
               " AND (max_uses IS NULL OR uses < max_uses) AND (expires IS NULL OR expires > ?)",
               digest, nowTicks()) > 0;
}

void SqliteMetadataStore::dropLinks(Date expiredBefore) {
    Writer writer(*this);
    writer->run("DELETE FROM links WHERE expires < ?", ticks(expiredBefore));
}

}  // namespace tarnwell::service
