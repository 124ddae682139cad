#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "util/SharedString.h"

struct sqlite3;
struct sqlite3_stmt;

namespace tarnwell::service {

class Database;

/// The result rows of one statement that is being run. While it lives, its statement may not be run again on
/// the same connection: collect what is needed, then recurse.
class Rows {
  public:
    Rows(Rows&& other) noexcept
        : statement_(std::exchange(other.statement_, nullptr)), database_(other.database_) {}
    Rows& operator=(Rows&&) = delete;
    ~Rows();

    /// The next row; false after the last one. Throws ServiceError for a failed statement.
    bool next();
    [[nodiscard]] std::int64_t integer(int column) const;
    [[nodiscard]] bool isNull(int column) const;
    /// Valid until the next call of next().
    [[nodiscard]] std::string_view view(int column) const;
    [[nodiscard]] std::string text(int column) const { return std::string(view(column)); }
    /// Absent for NULL.
    [[nodiscard]] SharedString shared(int column) const {
        return isNull(column) ? SharedString() : SharedString(view(column));
    }
    [[nodiscard]] std::optional<std::int64_t> optionalInteger(int column) const {
        return isNull(column) ? std::nullopt : std::optional(integer(column));
    }

  private:
    friend class Database;
    Rows(sqlite3_stmt* statement, const Database& database) : statement_(statement), database_(database) {}
    sqlite3_stmt* statement_;
    const Database& database_;
};

/// One SQLite connection with its prepared statements (kept by text). Used by one thread at a time.
///
/// Errors are ServiceErrors; StorageFullError for a full disk, DamagedError for a file that is no database or
/// a damaged one, which also sets `damaged`.
class Database {
  public:
    /// `damaged`, if given, outlives the connection.
    explicit Database(const std::string& path, std::atomic<bool>* damaged = nullptr);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    /// Statements without parameters, several at once; not kept.
    void execute(const char* sql);
    /// `sql` is a literal: the prepared statement is kept for the connection's life.
    template <class... T>
    Rows query(std::string_view sql, const T&... values) {
        sqlite3_stmt* statement = prepared(sql);
        int index = 0;
        (bind(statement, ++index, values), ...);
        return Rows(statement, *this);
    }
    /// Runs a statement that returns no rows; the number of rows changed.
    template <class... T>
    int run(std::string_view sql, const T&... values) {
        Rows rows = query(sql, values...);
        while (rows.next()) {
        }
        return changes();
    }

    /// While it lives, commits (if `on`) wait for no disk: they survive the process, not a power cut. Made
    /// and destroyed outside transactions.
    class Unsynced {
      public:
        Unsynced(Database& database, bool on);
        ~Unsynced();
        Unsynced(const Unsynced&) = delete;
        Unsynced& operator=(const Unsynced&) = delete;

      private:
        Database* const database_;
    };

  private:
    friend class Rows;
    [[noreturn]] void fail(const char* what) const;
    void check(int code) const {
        if (code != 0) fail("cannot bind a value");
    }
    sqlite3_stmt* prepared(std::string_view sql);
    int changes() const;
    void bind(sqlite3_stmt* statement, int index, std::int64_t value);
    void bind(sqlite3_stmt* statement, int index, std::int32_t value) {
        bind(statement, index, static_cast<std::int64_t>(value));
    }
    void bind(sqlite3_stmt* statement, int index, bool value) {
        bind(statement, index, static_cast<std::int64_t>(value));
    }
    void bind(sqlite3_stmt* statement, int index, std::string_view value);
    void bind(sqlite3_stmt* statement, int index, const std::string& value) {
        bind(statement, index, std::string_view(value));
    }
    void bind(sqlite3_stmt* statement, int index, const char* value) {
        bind(statement, index, std::string_view(value));
    }
    void bind(sqlite3_stmt* statement, int index, const SharedString& value);
    void bindNull(sqlite3_stmt* statement, int index);
    template <class T>
    void bind(sqlite3_stmt* statement, int index, const std::optional<T>& value) {
        if (value)
            bind(statement, index, *value);
        else
            bindNull(statement, index);
    }

    sqlite3* handle_ = nullptr;
    std::atomic<bool>* const damaged_;
    std::unordered_map<std::string_view, sqlite3_stmt*> statements_;
};

/// A transaction that is rolled back unless commit() was reached.
class Transaction {
  public:
    enum class Kind {
        read,  ///< one consistent snapshot; never waits for writers
        write  ///< takes the write lock at once, so that a later statement cannot fail for having read first
    };
    Transaction(Database& database, Kind kind);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    /// Durable on return for a write.
    void commit();

  private:
    Database& database_;
    bool open_ = true;
};

}  // namespace tarnwell::service
