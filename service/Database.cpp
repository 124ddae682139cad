#include "service/Database.h"

#include <sqlite3.h>

#include "service/ServiceError.h"

namespace tarnwell::service {

namespace {

/// How long a statement waits for another process's write transaction (an import of many files takes
/// seconds).
constexpr int kBusyMilliseconds = 30'000;

}  // namespace

void Database::fail(const char* what) const {
    const int code = handle_ ? sqlite3_errcode(handle_) & 0xFF : SQLITE_NOMEM;
    const std::string text =
        std::string("database: ") + what + ": " + (handle_ ? sqlite3_errmsg(handle_) : "no memory");
    if (code == SQLITE_FULL) throw StorageFullError("database: the disk is full");
    if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB) {
        if (damaged_) *damaged_ = true;
        throw DamagedError(text);
    }
    throw ServiceError(text);
}

Rows::~Rows() {
    if (!statement_) return;
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
}

bool Rows::next() {
    const int code = sqlite3_step(statement_);
    if (code == SQLITE_ROW) return true;
    if (code == SQLITE_DONE) return false;
    database_.fail("statement failed");
}

std::int64_t Rows::integer(int column) const {
    return sqlite3_column_int64(statement_, column);
}

bool Rows::isNull(int column) const {
    return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::string_view Rows::view(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    return text ? std::string_view(text, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)))
                : std::string_view();
}

Database::Database(const std::string& path, std::atomic<bool>* damaged) : damaged_(damaged) {
    const int flags =
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    if (sqlite3_open_v2(path.c_str(), &handle_, flags, nullptr) != SQLITE_OK) {
        const std::string text = handle_ ? sqlite3_errmsg(handle_) : "no memory";
        sqlite3_close(handle_);
        throw ServiceError("cannot open " + path + ": " + text);
    }
    try {
        sqlite3_busy_timeout(handle_, kBusyMilliseconds);
        // FULL: what a client was told to be stored is on the disk, also after a power cut.
        execute(
            "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON;"
            "PRAGMA cache_size=-16000; PRAGMA temp_store=MEMORY; PRAGMA journal_size_limit=16777216;");
    } catch (...) {
        sqlite3_close(handle_);
        throw;
    }
}

Database::~Database() {
    for (const auto& [sql, statement] : statements_)
        sqlite3_finalize(statement);
    sqlite3_close(handle_);
}

void Database::execute(const char* sql) {
    if (sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail("statement failed");
}

sqlite3_stmt* Database::prepared(std::string_view sql) {
    if (const auto found = statements_.find(sql); found != statements_.end()) {
        if (sqlite3_stmt_busy(found->second))
            throw std::logic_error("statement is in use: " + std::string(sql));
        return found->second;
    }
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(handle_, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                           &statement, nullptr) != SQLITE_OK) {
        fail("cannot prepare a statement");
    }
    statements_.emplace(sql, statement);
    return statement;
}

int Database::changes() const {
    return sqlite3_changes(handle_);
}

void Database::bind(sqlite3_stmt* statement, int index, std::int64_t value) {
    check(sqlite3_bind_int64(statement, index, value));
}

void Database::bind(sqlite3_stmt* statement, int index, std::string_view value) {
    check(sqlite3_bind_text64(statement, index, value.data() ? value.data() : "", value.size(),
                              SQLITE_TRANSIENT, SQLITE_UTF8));
}

void Database::bind(sqlite3_stmt* statement, int index, const SharedString& value) {
    if (value)
        bind(statement, index, value.view());
    else
        bindNull(statement, index);
}

void Database::bindNull(sqlite3_stmt* statement, int index) {
    check(sqlite3_bind_null(statement, index));
}

Database::Unsynced::Unsynced(Database& database, bool on) : database_(on ? &database : nullptr) {
    if (database_) database_->execute("PRAGMA synchronous=NORMAL");
}

Database::Unsynced::~Unsynced() {
    if (!database_) return;
    // Between transactions this statement only sets a flag of the connection.
    sqlite3_exec(database_->handle_, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr);
}

Transaction::Transaction(Database& database, Kind kind) : database_(database) {
    database_.execute(kind == Kind::write ? "BEGIN IMMEDIATE" : "BEGIN");
}

Transaction::~Transaction() {
    if (!open_) return;
    try {
        database_.execute("ROLLBACK");
    } catch (const ServiceError&) {
        // A full disk or an I/O error has rolled the transaction back already.
    }
}

void Transaction::commit() {
    database_.execute("COMMIT");
    open_ = false;
}

}  // namespace tarnwell::service
