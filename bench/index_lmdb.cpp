// LMDB with the time as an integer key. Look-ups share one read transaction, which is as quick as it gets.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <lmdb.h>
#include <unistd.h>

#include "index_engine.h"

namespace {

constexpr size_t MAP_BYTES = size_t{256} * 1024 * 1024;

struct environment {
    MDB_env* env;
    MDB_dbi db;
    MDB_txn* reading;
    char path[512];
};

bool good(int result) {
    if (result != 0) {
        std::fprintf(stderr, "index_bench: lmdb: %s\n", mdb_strerror(result));
    }
    return result == 0;
}

void close_environment(void* index) {
    auto* const e = static_cast<environment*>(index);
    if (e != nullptr) {
        mdb_txn_abort(e->reading);
        mdb_env_close(e->env);
        std::free(e);
    }
}

void* open_environment(const char* folder) {
    auto* const e = static_cast<environment*>(std::calloc(1, sizeof(environment)));
    if (e == nullptr) {
        return nullptr;
    }
    std::snprintf(e->path, sizeof e->path, "%s/clips.lmdb", folder);
    MDB_txn* making = nullptr;
    if (!good(mdb_env_create(&e->env)) || !good(mdb_env_set_mapsize(e->env, MAP_BYTES)) ||
        !good(mdb_env_open(e->env, e->path, MDB_NOSUBDIR | MDB_NOTLS, 0644)) ||
        !good(mdb_txn_begin(e->env, nullptr, 0, &making)) ||
        !good(mdb_dbi_open(making, nullptr, MDB_INTEGERKEY, &e->db)) || !good(mdb_txn_commit(making)) ||
        !good(mdb_txn_begin(e->env, nullptr, MDB_RDONLY, &e->reading))) {
        close_environment(e);
        return nullptr;
    }
    return e;
}

bool put(environment* e, MDB_txn* txn, uint32_t ts) {
    unsigned key_bytes = ts;
    unsigned char value_bytes[4] = {60, 0, 0, 0};
    MDB_val key = {sizeof key_bytes, &key_bytes};
    MDB_val value = {sizeof value_bytes, value_bytes};
    return good(mdb_put(txn, e->db, &key, &value, MDB_APPEND));
}

// A reader that stays open keeps every page that it may still see.
void look_anew(environment* e) {
    mdb_txn_reset(e->reading);
    (void)good(mdb_txn_renew(e->reading));
}

bool fill(const char* folder, const uint32_t* ts, uint32_t count) {
    auto* const e = static_cast<environment*>(open_environment(folder));
    MDB_txn* txn = nullptr;
    bool ok = e != nullptr && good(mdb_txn_begin(e->env, nullptr, 0, &txn));
    for (uint32_t i = 0; ok && i < count; ++i) {
        ok = put(e, txn, ts[i]);
    }
    ok = ok && good(mdb_txn_commit(txn));
    close_environment(e);
    return ok;
}

bool get(void* index, uint32_t ts) {
    auto* const e = static_cast<environment*>(index);
    unsigned key_bytes = ts;
    MDB_val key = {sizeof key_bytes, &key_bytes};
    MDB_val value = {};
    return mdb_get(e->reading, e->db, &key, &value) == 0;
}

uint32_t walk(void* index) {
    auto* const e = static_cast<environment*>(index);
    MDB_cursor* cursor = nullptr;
    uint32_t count = 0;
    if (good(mdb_cursor_open(e->reading, e->db, &cursor))) {
        MDB_val key = {};
        MDB_val value = {};
        while (mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0) {
            ++count;
        }
        mdb_cursor_close(cursor);
    }
    return count;
}

bool append(void* index, uint32_t ts) {
    auto* const e = static_cast<environment*>(index);
    MDB_txn* txn = nullptr;
    const bool ok = good(mdb_txn_begin(e->env, nullptr, 0, &txn)) && put(e, txn, ts) && good(mdb_txn_commit(txn));
    look_anew(e);
    return ok;
}

bool drop_oldest(void* index) {
    auto* const e = static_cast<environment*>(index);
    MDB_txn* txn = nullptr;
    MDB_cursor* cursor = nullptr;
    MDB_val key = {};
    MDB_val value = {};
    const bool ok = good(mdb_txn_begin(e->env, nullptr, 0, &txn)) && good(mdb_cursor_open(txn, e->db, &cursor)) &&
                    good(mdb_cursor_get(cursor, &key, &value, MDB_FIRST)) && good(mdb_cursor_del(cursor, 0));
    if (cursor != nullptr) {
        mdb_cursor_close(cursor);
    }
    const bool done = ok && good(mdb_txn_commit(txn));
    look_anew(e);
    return done;
}

// Into a copy that takes the file's place.
bool compact(void* index) {
    auto* const e = static_cast<environment*>(index);
    char copy[520];
    std::snprintf(copy, sizeof copy, "%s.new", e->path);
    (void)unlink(copy);
    return good(mdb_env_copy2(e->env, copy, MDB_CP_COMPACT)) && rename(copy, e->path) == 0;
}

}  // namespace

const index_engine INDEX_LMDB = {
    "LMDB",
    "on the card when the call returns",
    fill,
    open_environment,
    close_environment,
    get,
    walk,
    append,
    drop_oldest,
    compact,
};
