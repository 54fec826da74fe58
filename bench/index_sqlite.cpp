// SQLite with a write-ahead log, prepared statements, and the time as the row's key.
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <sqlite3.h>

#include "index_engine.h"

namespace {

struct database {
    sqlite3* db;
    sqlite3_stmt* get;
    sqlite3_stmt* walk;
    sqlite3_stmt* append;
    sqlite3_stmt* drop;
};

bool run(sqlite3* db, const char* sql) {
    const bool ok = sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
    if (!ok) {
        std::fprintf(stderr, "index_bench: %s: %s\n", sql, sqlite3_errmsg(db));
    }
    return ok;
}

void close_database(void* index) {
    auto* const d = static_cast<database*>(index);
    if (d != nullptr) {
        for (sqlite3_stmt* statement : {d->get, d->walk, d->append, d->drop}) {
            sqlite3_finalize(statement);
        }
        sqlite3_close(d->db);
        std::free(d);
    }
}

void* open_database(const char* folder) {
    char path[512];
    std::snprintf(path, sizeof path, "%s/clips.sqlite", folder);
    auto* const d = static_cast<database*>(std::calloc(1, sizeof(database)));
    const auto prepare = [&](const char* sql, sqlite3_stmt** statement) {
        return sqlite3_prepare_v2(d->db, sql, -1, statement, nullptr) == SQLITE_OK;
    };
    if (d == nullptr || sqlite3_open(path, &d->db) != SQLITE_OK || !run(d->db, "PRAGMA journal_mode=WAL") ||
        !run(d->db, "PRAGMA synchronous=FULL") ||
        !run(d->db, "CREATE TABLE IF NOT EXISTS clip(ts INTEGER PRIMARY KEY, seconds INTEGER, flags INTEGER)") ||
        !prepare("SELECT seconds, flags FROM clip WHERE ts = ?", &d->get) ||
        !prepare("SELECT ts, seconds, flags FROM clip ORDER BY ts", &d->walk) ||
        !prepare("INSERT INTO clip VALUES(?, 60, 0)", &d->append) ||
        !prepare("DELETE FROM clip WHERE ts = (SELECT min(ts) FROM clip)", &d->drop)) {
        close_database(d);
        return nullptr;
    }
    return d;
}

bool step_with(sqlite3_stmt* statement, uint32_t ts, int wanted) {
    sqlite3_bind_int64(statement, 1, ts);
    const bool ok = sqlite3_step(statement) == wanted;
    sqlite3_reset(statement);
    return ok;
}

bool fill(const char* folder, const uint32_t* ts, uint32_t count) {
    auto* const d = static_cast<database*>(open_database(folder));
    bool ok = d != nullptr && run(d->db, "BEGIN");
    for (uint32_t i = 0; ok && i < count; ++i) {
        ok = step_with(d->append, ts[i], SQLITE_DONE);
    }
    ok = ok && run(d->db, "COMMIT") && run(d->db, "PRAGMA wal_checkpoint(TRUNCATE)");
    close_database(d);
    return ok;
}

uint32_t walk(void* index) {
    auto* const d = static_cast<database*>(index);
    uint32_t count = 0;
    while (sqlite3_step(d->walk) == SQLITE_ROW) {
        (void)sqlite3_column_int64(d->walk, 0);
        ++count;
    }
    sqlite3_reset(d->walk);
    return count;
}

bool drop_oldest(void* index) {
    auto* const d = static_cast<database*>(index);
    const bool ok = sqlite3_step(d->drop) == SQLITE_DONE;
    sqlite3_reset(d->drop);
    return ok;
}

}  // namespace

const index_engine INDEX_SQLITE = {
    "SQLite WAL",
    "on the card when the call returns (synchronous=FULL)",
    fill,
    open_database,
    close_database,
    [](void* index, uint32_t ts) { return step_with(static_cast<database*>(index)->get, ts, SQLITE_ROW); },
    walk,
    [](void* index, uint32_t ts) { return step_with(static_cast<database*>(index)->append, ts, SQLITE_DONE); },
    drop_oldest,
    [](void* index) {
        auto* const d = static_cast<database*>(index);
        return run(d->db, "VACUUM") && run(d->db, "PRAGMA wal_checkpoint(TRUNCATE)");
    },
};
