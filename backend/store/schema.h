// The tables of the store. A new table is a new row of MIGRATIONS in the source; rows that were
// released do not change any more.
#pragma once

#include <cstdint>

struct sqlite3;

namespace backend {

// In the file's header: tells a store from a file of another program ("RAst").
constexpr std::int64_t STORE_APPLICATION_ID = 0x52417374;

// Brings an opened store to the version of this program, in one transaction. Throws
// DATABASE_FAULT_T, and std::runtime_error for a newer version or another program's file.
void migrateSchema(sqlite3 &database);

} // namespace backend
