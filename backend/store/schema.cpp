#include "backend/store/schema.h"

#include "backend/store/database.h"

#include <array>
#include <stdexcept>
#include <string>

namespace backend {

// Row n brings a store of version n to version n + 1. Times are milliseconds since the epoch,
// where nothing else is said.
constexpr auto MIGRATIONS = std::to_array<const char *>({
    R"(CREATE TABLE meta (
           name TEXT PRIMARY KEY NOT NULL, value INTEGER NOT NULL) STRICT, WITHOUT ROWID;
       CREATE TABLE device (
           product TEXT NOT NULL, name TEXT NOT NULL,
           connected_since_ms INTEGER NOT NULL, last_seen_ms INTEGER NOT NULL,
           last_reason TEXT NOT NULL, last_address TEXT NOT NULL,
           replaced_ms INTEGER NOT NULL, duplicate_ms INTEGER NOT NULL,
           PRIMARY KEY (product, name)) STRICT, WITHOUT ROWID;
       CREATE TABLE signature (
           product TEXT NOT NULL, device TEXT NOT NULL, signed_second INTEGER NOT NULL,
           first_used_ms INTEGER NOT NULL, address TEXT NOT NULL,
           PRIMARY KEY (product, device, signed_second)) STRICT, WITHOUT ROWID;
       CREATE INDEX signature_by_second ON signature (signed_second);)",
    R"(CREATE TABLE token (
           id TEXT PRIMARY KEY NOT NULL, operator TEXT NOT NULL, label TEXT NOT NULL,
           sha256 TEXT UNIQUE NOT NULL, made_ms INTEGER NOT NULL,
           expires INTEGER NOT NULL, -- seconds since the epoch
           made_with TEXT NOT NULL) STRICT, WITHOUT ROWID;
       CREATE TABLE host_key (
           product TEXT NOT NULL, device TEXT NOT NULL, service TEXT NOT NULL,
           type TEXT NOT NULL, key TEXT NOT NULL, seen_ms INTEGER NOT NULL, who TEXT NOT NULL,
           PRIMARY KEY (product, device, service, type)) STRICT, WITHOUT ROWID;)",
});

static std::int64_t readNumber(sqlite3 &database, const char *sql)
{
    return std::get<std::int64_t>(query(database, sql).at(0).at(0));
}

static void migrateInTransaction(sqlite3 &database)
{
    const std::int64_t version = readNumber(database, "PRAGMA user_version");
    const auto newest = static_cast<std::int64_t>(MIGRATIONS.size());
    const bool is_empty = readNumber(database, "SELECT count(*) FROM sqlite_schema") == 0;
    if (!is_empty && readNumber(database, "PRAGMA application_id") != STORE_APPLICATION_ID)
        throw std::runtime_error("this is the database of another program");
    if (version > newest)
        throw std::runtime_error("it has version " + std::to_string(version) +
                                 ", this program knows up to " + std::to_string(newest) +
                                 ": start the newer program, or restore a backup of before");
    for (auto next = static_cast<std::size_t>(version); next < MIGRATIONS.size(); next++)
        execute(database, MIGRATIONS.at(next));
    execute(database, "PRAGMA application_id=" + std::to_string(STORE_APPLICATION_ID) +
                          "; PRAGMA user_version=" + std::to_string(newest));
}

void migrateSchema(sqlite3 &database)
{
    execute(database, "BEGIN IMMEDIATE");
    try {
        migrateInTransaction(database);
        execute(database, "COMMIT");
    } catch (...) {
        rollBack(database);
        throw;
    }
}

} // namespace backend
