#include "service/SqliteMetadataStore.h"
#include "util/TWUtils.h"

// The part of SqliteMetadataStore that deals with uploads under way. A client can begin each of them again,
// so nothing here waits for the disk.
namespace tarnwell::service {

std::optional<TransferInfo> SqliteMetadataStore::transfer(std::string_view digest) {
    Reader reader(*this);
    auto rows = reader->query(
        "SELECT digest, share_id, device, event, record, touched, done FROM transfers"
        " JOIN shares ON shares.id = share WHERE digest = ?",
        digest);
    if (!rows.next()) return std::nullopt;
    return TransferInfo{rows.text(0),        rows.text(1),
                        rows.text(2),        static_cast<std::int32_t>(rows.integer(3)),
                        rows.text(4),        dateWithTicks(rows.integer(5)),
                        rows.integer(6) != 0};
}

void SqliteMetadataStore::touchTransfer(std::string_view digest) {
    const Date now = std::chrono::floor<TickDuration>(std::chrono::system_clock::now());
    Writer writer(*this);
    const Database::Unsynced unsynced(*writer, true);
    writer->run("UPDATE transfers SET touched = ? WHERE digest = ?", ticks(now), digest);
}

void SqliteMetadataStore::dropTransfer(std::string_view digest) {
    Writer writer(*this);
    const Database::Unsynced unsynced(*writer, true);
    writer->run("DELETE FROM transfers WHERE digest = ?", digest);
}

void SqliteMetadataStore::dropTransfers(Date before) {
    Writer writer(*this);
    const Database::Unsynced unsynced(*writer, true);
    writer->run("DELETE FROM transfers WHERE touched < ?", ticks(before));
}

}  // namespace tarnwell::service
