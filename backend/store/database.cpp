#include "backend/store/database.h"

#include <sqlite3.h>

namespace backend {

constexpr int BUSY_TIME_MS = 2000;

void DATABASE_CLOSER_T::operator()(sqlite3 *database) const
{
    (void)sqlite3_close_v2(database);
}

void DATABASE_CLOSER_T::operator()(sqlite3_stmt *statement) const
{
    (void)sqlite3_finalize(statement); // repeats the error of its last run
}

[[noreturn]] static void fail(sqlite3 &database)
{
    throw DATABASE_FAULT_T(sqlite3_errcode(&database) & 0xff, sqlite3_errmsg(&database));
}

DatabasePtr openDatabase(const std::string &path)
{
    sqlite3 *opened = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &opened,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX, nullptr);
    DatabasePtr database(opened); // there is one to close after most errors as well
    if (result != SQLITE_OK) throw DATABASE_FAULT_T(result, sqlite3_errstr(result));
    (void)sqlite3_busy_timeout(opened, BUSY_TIME_MS);
    // A file that was tampered with runs nothing of its own.
    (void)sqlite3_db_config(opened, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    (void)sqlite3_db_config(opened, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    return database;
}

StatementPtr prepare(sqlite3 &database, const char *sql)
{
    sqlite3_stmt *prepared = nullptr;
    if (sqlite3_prepare_v3(&database, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr) !=
        SQLITE_OK)
        fail(database);
    return StatementPtr(prepared);
}

static int bindValue(sqlite3_stmt &statement, int place, const STORE_VALUE_T &value)
{
    if (const auto *number = std::get_if<std::int64_t>(&value))
        return sqlite3_bind_int64(&statement, place, *number);
    const auto &text = std::get<std::string>(value);
    return sqlite3_bind_text64(&statement, place, text.data(), text.size(), SQLITE_STATIC,
                               SQLITE_UTF8);
}

void runStatement(sqlite3_stmt &statement, const std::vector<STORE_VALUE_T> &values)
{
    int result = SQLITE_OK;
    int place = 0;
    for (const STORE_VALUE_T &value : values) {
        if (result == SQLITE_OK) result = bindValue(statement, ++place, value);
    }
    if (result == SQLITE_OK) result = sqlite3_step(&statement);
    const bool is_done = result == SQLITE_DONE;
    const std::string text = is_done ? "" : sqlite3_errmsg(sqlite3_db_handle(&statement));
    (void)sqlite3_reset(&statement); // repeats the error of the step
    (void)sqlite3_clear_bindings(&statement);
    if (!is_done) throw DATABASE_FAULT_T(result & 0xff, text);
}

void execute(sqlite3 &database, const std::string &sql)
{
    if (sqlite3_exec(&database, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
        fail(database);
}

void rollBack(sqlite3 &database) noexcept
{
    if (sqlite3_get_autocommit(&database) == 0)
        (void)sqlite3_exec(&database, "ROLLBACK", nullptr, nullptr, nullptr);
}

static STORE_VALUE_T readColumn(sqlite3_stmt &statement, int column)
{
    if (sqlite3_column_type(&statement, column) == SQLITE_INTEGER)
        return sqlite3_column_int64(&statement, column);
    const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(&statement, column));
    if (text == nullptr) return std::string();
    return std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(&statement, column)));
}

std::vector<STORE_ROW_T> query(sqlite3 &database, const char *sql)
{
    const StatementPtr statement = prepare(database, sql);
    std::vector<STORE_ROW_T> rows;
    int result = SQLITE_ROW;
    while ((result = sqlite3_step(statement.get())) == SQLITE_ROW) {
        STORE_ROW_T &row = rows.emplace_back();
        for (int i = 0; i < sqlite3_column_count(statement.get()); i++)
            row.push_back(readColumn(*statement, i));
    }
    if (result != SQLITE_DONE) fail(database);
    return rows;
}

std::string checkDatabase(sqlite3 &database)
{
    const std::vector<STORE_ROW_T> rows = query(database, "PRAGMA quick_check(1)");
    const std::string text =
        rows.empty() || rows[0].empty() ? "no result" : std::get<std::string>(rows[0][0]);
    return text == "ok" ? "" : text;
}

} // namespace backend
