// SQLite's handles with owners, and its errors as exceptions.
// Threads  each handle is used by one thread at a time.
// Failure  every call throws DATABASE_FAULT_T.
#pragma once

#include "backend/store/store.h"

#include <memory>
#include <stdexcept>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace backend {

struct DATABASE_FAULT_T : std::runtime_error {
    DATABASE_FAULT_T(int result, const std::string &text) : std::runtime_error(text), code(result)
    {
    }
    int code; // SQLite's primary result code
};

struct DATABASE_CLOSER_T {
    void operator()(sqlite3 *database) const;
    void operator()(sqlite3_stmt *statement) const;
};
using DatabasePtr = std::unique_ptr<sqlite3, DATABASE_CLOSER_T>;
using StatementPtr = std::unique_ptr<sqlite3_stmt, DATABASE_CLOSER_T>;

// The file must exist. A lock of somebody else is waited for at most BUSY_TIME.
DatabasePtr openDatabase(const std::string &path);

StatementPtr prepare(sqlite3 &database, const char *sql);

// For a statement that returns no rows; it can be run again afterwards.
void runStatement(sqlite3_stmt &statement, const std::vector<STORE_VALUE_T> &values);

void execute(sqlite3 &database, const std::string &sql); // one or more statements; rows are dropped
std::vector<STORE_ROW_T> query(sqlite3 &database, const char *sql);

void rollBack(sqlite3 &database) noexcept; // some errors have ended the transaction already

// Empty when every page can be read and belongs where it is.
std::string checkDatabase(sqlite3 &database);

} // namespace backend
