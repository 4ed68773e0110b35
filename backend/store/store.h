// What the back end learns while it runs: one SQLite file (WAL, synchronous=FULL). Only the back
// end writes it; devices.json and operators.json belong to people and are never written here.
// Owns     the file, a lock on it (a second back end is refused), a thread and a bounded queue.
// Threads  the thread of the store alone touches the file once openStore has returned. The other
//          calls are for the io thread; they never wait for the disk, closeStore excepted.
//          Callbacks run where the poster runs them, never within the call.
// Order    writes are carried out in the order of the calls. All that wait go into one
//          transaction, so that a thousand devices at once cost a handful of fsyncs.
// Limits   QUEUE_MAX waiting writes; one waiting late write for each key.
// Failure  openStore throws std::runtime_error whose text names the file and what to do. Afterwards
//          a write that cannot be made is reported as false to its callback and is in the log, rate
//          limited; the next one is tried anew, so that a full disk needs no restart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace backend {

struct STORE_T;
void closeStore(STORE_T *store); // carries out what waits, late writes too; takes null

struct STORE_CLOSER_T {
    void operator()(STORE_T *store) const
    {
        closeStore(store);
    }
};
using StorePtr = std::unique_ptr<STORE_T, STORE_CLOSER_T>;

// Has a function run on the io thread; called from the thread of the store.
using StorePoster = std::function<void(std::function<void()>)>;

// is_durable: the transaction is on the disk. False: nothing of this write is.
using StoreCallback = std::function<void(bool is_durable)>;

using STORE_VALUE_T = std::variant<std::int64_t, std::string>;

// sql: one statement with a literal's lifetime; the values take the places of its question marks.
struct STORE_WRITE_T {
    const char *sql;
    std::vector<STORE_VALUE_T> values;
};

// As the store's times are: milliseconds since the epoch.
std::int64_t wallClockMs();

constexpr std::size_t STORE_QUEUE_MAX = 16384;

// Opens the file, makes it (mode 0600) where there is none, and brings its tables to the version
// of this program. Refuses: a file of a newer version, one that others may write or everybody may
// read, one that another back end uses, one that is damaged (the text names the restore).
StorePtr openStore(const std::string &path, StorePoster poster);

// The rows of a query at the start; waits for the disk. Throws std::runtime_error. To be called
// before the first write.
using STORE_ROW_T = std::vector<STORE_VALUE_T>;
std::vector<STORE_ROW_T> readStore(STORE_T &store, const char *sql);

// answered is called once, unless the store is closed and the io thread has ended before.
void writeStore(STORE_T &store, STORE_WRITE_T write, StoreCallback answered);

// For what may come late: written with the next batch of these, every LATE_WRITE_PERIOD. A newer
// write with the same key takes the place of one that waits; one that fails is tried again.
constexpr int LATE_WRITE_PERIOD_S = 5;
void writeStoreLate(STORE_T &store, std::string key, STORE_WRITE_T write);

// A copy of the store in target, also beside a running back end: as a whole or not at all, mode
// 0600. Throws std::runtime_error; an existing target is an error unless it may be replaced.
void backUpStore(const std::string &path, const std::string &target, bool may_replace);

} // namespace backend
