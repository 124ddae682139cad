#include "service/SqliteShareChange.h"

#include <limits>

#include "service/ServiceError.h"
#include "util/TWUtils.h"

namespace tarnwell::service {

TWVirtualFilePtr itemFrom(const Rows& rows, const SharedString& shareId) {
    auto item = std::make_shared<TWVirtualFile>();
    const auto tick = [&](int column) { return static_cast<std::int32_t>(rows.integer(column)); };
    item->ShareId = shareId;
    item->InternalName = rows.shared(0);
    item->ParrentId = rows.shared(1);
    item->PublicName = rows.shared(2);
    item->User = rows.shared(3);
    item->UploadName = rows.shared(4);
    item->LastUploadName = rows.shared(5);
    item->FilehHash = rows.shared(6);
    item->Tick = tick(7);
    item->ShareTick = tick(8);
    item->UpdateTick = tick(9);
    item->CreateTick = tick(10);
    item->EndOfFile = item->AllocationSize = rows.integer(11);
    item->CreationTime = dateWithTicks(rows.integer(12));
    item->LastAccessTime = dateWithTicks(rows.integer(13));
    item->LastWriteTime = dateWithTicks(rows.integer(14));
    if (!rows.isNull(15)) item->Attributes = tick(15);
    if (!rows.isNull(16)) item->POSIXPermissions = tick(16);
    item->Deleted = rows.integer(17) != 0;
    item->IsFile = rows.integer(18) != 0;
    return item;
}

SqliteShareChange::SqliteShareChange(Database& database, const std::string& shareId)
    : database_(database), shareId_(shareId) {
    auto rows = database_.query("SELECT id, name, domain, tick FROM shares WHERE share_id = ?", shareId);
    if (!rows.next()) throw ServiceError("there is no such share");
    row_ = rows.integer(0);
    share_ = {shareId, rows.text(1), rows.text(2), static_cast<std::int32_t>(rows.integer(3))};
    storedTick_ = share_.tick;
}

std::int32_t SqliteShareChange::nextTick() {
    if (share_.tick == std::numeric_limits<std::int32_t>::max()) {
        throw ServiceError("the share \"" + share_.name + "\" has used up its change numbers");
    }
    return ++share_.tick;
}

TWVirtualFilePtr SqliteShareChange::find(std::string_view internalName) {
    auto rows =
        database_.query("SELECT " TARNWELL_ITEM_COLUMNS " FROM items WHERE internal_name = ? AND share = ?",
                        internalName, row_);
    return rows.next() ? itemFrom(rows, shareId_) : nullptr;
}

TWVirtualFilePtr SqliteShareChange::childNamed(std::string_view parent, std::string_view publicName) {
    auto rows = database_.query("SELECT " TARNWELL_ITEM_COLUMNS
                                " FROM items WHERE share = ? AND parent = ? AND name_key = ? AND deleted = 0",
                                row_, parent, keyFromPath(publicName));
    return rows.next() ? itemFrom(rows, shareId_) : nullptr;
}

std::vector<TWVirtualFilePtr> SqliteShareChange::children(std::string_view parent) {
    auto rows = database_.query("SELECT " TARNWELL_ITEM_COLUMNS
                                " FROM items WHERE share = ? AND parent = ? AND deleted = 0"
                                " ORDER BY name_key",
                                row_, parent);
    std::vector<TWVirtualFilePtr> items;
    while (rows.next())
        items.push_back(itemFrom(rows, shareId_));
    return items;
}

void SqliteShareChange::put(const TWVirtualFile& record) {
    // The WHERE keeps an internal name that another share has from being taken over; nothing changes then.
    const int changed = database_.run(
        "INSERT INTO items (share, name_key, internal_name, parent, public_name, owner, upload_name,"
        " last_upload_name, hash, tick, share_tick, update_tick, create_tick, size, creation_time, "
        "access_time,"
        " write_time, attributes, permissions, deleted, is_file)"
        " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"
        " ON CONFLICT (internal_name) DO UPDATE SET name_key = excluded.name_key, parent = excluded.parent,"
        " public_name = excluded.public_name, owner = excluded.owner, upload_name = excluded.upload_name,"
        " last_upload_name = excluded.last_upload_name, hash = excluded.hash, tick = excluded.tick,"
        " share_tick = excluded.share_tick, update_tick = excluded.update_tick, create_tick = "
        "excluded.create_tick,"
        " size = excluded.size, creation_time = excluded.creation_time, access_time = excluded.access_time,"
        " write_time = excluded.write_time, attributes = excluded.attributes, permissions = "
        "excluded.permissions,"
        " deleted = excluded.deleted, is_file = excluded.is_file WHERE items.share = excluded.share",
        row_, keyFromPath(record.PublicName.view()), record.InternalName.view(), record.ParrentId.view(),
        record.PublicName.view(), record.User, record.UploadName, record.LastUploadName, record.FilehHash,
        record.Tick, record.ShareTick, record.UpdateTick, record.CreateTick, record.size(),
        ticks(record.CreationTime), ticks(record.LastAccessTime), ticks(record.LastWriteTime),
        record.Attributes, record.POSIXPermissions, record.Deleted, record.IsFile);
    if (changed != 1) throw ForeignIdentityError("another share has an item of that identity");
}

Authorship SqliteShareChange::authorship(std::string_view internalName) {
    auto rows = database_.query(
        "SELECT writer, written_before, mover, place_tick, placed_before FROM items"
        " WHERE internal_name = ? AND share = ?",
        internalName, row_);
    const auto tick = [&](int column) { return static_cast<std::int32_t>(rows.integer(column)); };
    if (!rows.next()) return {};
    return {rows.text(0), tick(1), rows.text(2), tick(3), tick(4)};
}

void SqliteShareChange::setAuthorship(std::string_view internalName, const Authorship& authorship) {
    database_.run(
        "UPDATE items SET writer = ?, written_before = ?, mover = ?, place_tick = ?, placed_before = ?"
        " WHERE internal_name = ? AND share = ?",
        authorship.writer, authorship.writtenBefore, authorship.mover, authorship.placeTick,
        authorship.placedBefore, internalName, row_);
}

std::optional<ContentsInfo> contentsNamed(Database& database, std::string_view uploadName) {
    auto rows = database.query(
        "SELECT upload_name, share_id, size, hash, item FROM contents JOIN shares ON shares.id = share"
        " WHERE upload_name = ?",
        uploadName);
    if (!rows.next()) return std::nullopt;
    return ContentsInfo{rows.text(0), rows.text(1), rows.integer(2), rows.text(3), rows.text(4)};
}

std::optional<ContentsInfo> SqliteShareChange::contents(std::string_view uploadName) {
    return contentsNamed(database_, uploadName);
}

void SqliteShareChange::addContents(const ContentsInfo& contents) {
    database_.run("INSERT INTO contents (upload_name, share, size, hash, item) VALUES (?, ?, ?, ?, ?)",
                  contents.uploadName, row_, contents.size, contents.hash, contents.item);
}

void SqliteShareChange::retireContents(std::string_view uploadName) {
    const Date now = std::chrono::floor<TickDuration>(std::chrono::system_clock::now());
    database_.run("UPDATE contents SET retired = ? WHERE upload_name = ? AND share = ? AND retired IS NULL",
                  ticks(now), uploadName, row_);
}

void SqliteShareChange::addTransfer(const TransferInfo& transfer) {
    database_.run(
        "INSERT INTO transfers (digest, share, device, event, record, touched, done)"
        " VALUES (?, ?, ?, ?, ?, ?, ?)",
        transfer.digest, row_, transfer.deviceId, transfer.event, transfer.record, ticks(transfer.touched),
        transfer.done);
}

void SqliteShareChange::finishTransfer(std::string_view digest) {
    database_.run("UPDATE transfers SET done = 1 WHERE digest = ? AND share = ?", digest, row_);
}

void SqliteShareChange::finish() {
    if (share_.tick == storedTick_) return;
    database_.run("UPDATE shares SET tick = ? WHERE id = ?", share_.tick, row_);
}

}  // namespace tarnwell::service
