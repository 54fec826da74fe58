// The store and its link to the configuration service.
//
// What the daemon sets is kept in a table and pushed through the link at once; an entry stays dirty until the service's
// library has taken its value. What others set comes only as notifications, which go to the registered callbacks and
// never into the table.
//
// The link heals by being closed and opened: at once when a registration fails or a watched descriptor breaks, else by
// the reopen timer, once a second until it succeeds. An open pushes
// what is dirty first and subscribes second; a push that fails makes the open a failed one.
#include "kv.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <uthash.h>
#include <utlist.h>

#include "karvel.h"
#include "vesk_util.h"

ev_io link_io;

namespace {

constexpr ev_tstamp REOPEN_S = 1.0;
constexpr ev_tstamp TIMEOUT_CHECK_S = 1.0;
constexpr int KEEP_IN_SERVICE = 1;
constexpr int SET_ALLOWED_S = 3;
constexpr int READ_ALLOWED_DEFAULT = -1;
constexpr int CONFIRM_SUBSCRIPTION = 1;
constexpr char MEM[] = "mem";

struct kv_entry {
    char name_space[8];  // cut to fit
    char key[32];        // cut to fit; the table is keyed by this alone, whatever the namespace
    char* value;         // owned; null while kvmem_sync waits for a first answer, and when the answer had no value
    int32_t dirty;       // 1: the library has not taken the value yet, or kvmem_sync waits for an answer
    UT_hash_handle hh;
};

struct kv_registration {
    char* key;         // owned
    char* name_space;  // owned
    char* group;       // owned
    void* context;
    kv_callback callback;
    uint32_t id;       // the library's; 0 while not subscribed
    int32_t awaiting;  // 1: subscribed and not notified since; a close leaves it and resets the count
    kv_registration* prev;
    kv_registration* next;
};

kv_entry* entries;               // iterated in the order they were added
kv_registration* registrations;  // in the order they were made
karvel_handle* kv_handle;        // null before the first open and after a failed one; may be closed, which is harmless
int32_t kv_dirty;                // 1: some entry may be dirty
uint32_t pengding_count;         // sets without an answer and subscriptions without a first notification
ev_timer reopen_timer;           // armed by any failure
ev_timer timeout_timer;          // runs while pengding_count is above 0
ev_async commit_async;           // active while the link is open
ev_async register_async;         // active while the link is open

int kv_commit();
int kv_link_open();
void on_register_fail(karvel_response* response, void* context);

void timer_arm(ev_timer* timer, ev_tstamp period_s) {
    timer->repeat = period_s;
    ev_timer_again(ev_default_loop(0), timer);
}

// Only the timer's own callback stops it: a link that some other path reopened meanwhile is closed and opened once more
// when the timer fires.
void reopen_arm() {
    timer_arm(&reopen_timer, REOPEN_S);
}

void pending_inc() {
    if (pengding_count == 0) {
        timer_arm(&timeout_timer, TIMEOUT_CHECK_S);
    }
    ++pengding_count;
}

void pending_dec() {
    if (pengding_count == 0) {
        log_err("pengding_count underflow!");
        return;
    }
    if (--pengding_count == 0) {
        ev_timer_stop(ev_default_loop(0), &timeout_timer);
    }
}

void pending_reset() {
    pengding_count = 0;
    ev_timer_stop(ev_default_loop(0), &timeout_timer);
}

// --- entries -------------------------------------------------------------------------------------------------------

template <size_t size>
void copy_cut(char (&field)[size], const char* text) {
    const size_t length = strnlen(text, size - 1);
    memcpy(field, text, length);
    field[length] = '\0';
}

kv_entry* entry_find(const char* key) {
    kv_entry* entry;
    HASH_FIND_STR(entries, key, entry);
    return entry;
}

// Adds a dirty entry that takes value over. Null when memory for it runs out; a table that cannot grow ends the
// process, which is uthash's own way.
//
// The table is keyed by the cut key, but looked up by the caller's whole string: a key longer than 31 characters is
// never found again, and each set of it adds another entry. Kept: two long keys with one beginning must not share an
// entry by accident, and the daemon has no such keys.
kv_entry* entry_add(const char* name_space, const char* key, char* value) {
    auto* entry = static_cast<kv_entry*>(calloc(1, sizeof(kv_entry)));
    if (entry == nullptr) {
        return nullptr;
    }
    copy_cut(entry->name_space, name_space);
    copy_cut(entry->key, key);
    entry->value = value;
    entry->dirty = 1;
    HASH_ADD_STR(entries, key, entry);
    return entry;
}

void on_set_ok(karvel_response*, void*) {
    pending_dec();
}

// kv_dirty stays as it is: the value goes out again with the next kv_set_str of any key, not by itself. A service that
// refuses a value would otherwise be sent it again and again. The price is that what was pushed to a service which then
// stayed silent for SET_ALLOWED_S is published with the next change only: who watches "sdcard_status" sees the state
// late.
void on_set_fail(karvel_response*, void* context) {
    pending_dec();
    static_cast<kv_entry*>(context)->dirty = 1;
}

// Hands all dirty entries to the library, if a set has made one dirty since the last time. 0: it took them all. -1: it
// took no more; the rest stays dirty for the next open. An entry without a value is no exception: it goes out with a
// null one.
int kv_commit() {
    if (kv_dirty == 0) {
        return 0;
    }
    for (kv_entry* entry = entries; entry != nullptr; entry = static_cast<kv_entry*>(entry->hh.next)) {
        if (entry->dirty == 0) {
            continue;
        }
        if (!libkarvel_set_value(kv_handle, entry->name_space, nullptr, entry->key, KEEP_IN_SERVICE, entry->value,
                                 on_set_ok, on_set_fail, SET_ALLOWED_S, entry)) {
            reopen_arm();
            return -1;
        }
        pending_inc();
        entry->dirty = 0;
    }
    kv_dirty = 0;
    return 0;
}

void on_kvmem_sync(karvel_response* response, void* context) {
    auto* entry = static_cast<kv_entry*>(context);
    char* value = nullptr;
    const karvel_xvalue* result = nullptr;
    if (xcontrol_get_response(response, &result) == 1) {
        value = strndup(result->data, result->length);
    } else {
        log_err("%s: fail to get response from karveld", "on_kvmem_sync");
    }
    free(entry->value);
    entry->value = value;
    entry->dirty = 0;
}

// --- registrations -------------------------------------------------------------------------------------------------

// A registration without the name stands for any.
bool name_fits(const char* own, const char* notified) {
    return own == nullptr || strcmp(own, notified) == 0;
}

// Where a notification goes that the library gave to the wrong registration: the first one that shares its namespace,
// its group or its key. One equal name is enough, on purpose. All of this daemon's registrations are of one namespace
// and group, so a stray notification reaches the first of them, whose callback judges the value.
kv_registration* registration_find_loosely(const karvel_xname* name) {
    kv_registration* registration;
    DL_FOREACH(registrations, registration) {
        if (strcmp(registration->name_space, name->name_space) == 0 || strcmp(registration->group, name->group) == 0 ||
            strcmp(registration->key, name->key) == 0) {
            return registration;
        }
    }
    return nullptr;
}

void on_notification(karvel_response* response, void* context) {
    auto* registration = static_cast<kv_registration*>(context);
    int error = -1;
    karvel_xpair* pair = xresponse_parse(response, &error);
    if (error != 0) {
        // Subscribed again on a later iteration. It is counted a second time then, since it stays awaiting: the
        // time-out timer may go on running, which costs one call a second and nothing else.
        registration->id = 0;
        ev_async_send(ev_default_loop(0), &register_async);
        return;
    }

    const karvel_xname* name = pair->first;
    kv_registration* target = registration;
    if (!name_fits(registration->name_space, name->name_space) || !name_fits(registration->group, name->group) ||
        !name_fits(registration->key, name->key)) {
        log_warning("The notification dispatched with wrong key.");
        target = registration_find_loosely(name);
    }
    if (target == nullptr) {
        log_warning("Incorrect notification. %s:%s:%s", name->name_space, name->group, name->key);
    } else {
        if (target->awaiting == 1) {
            target->awaiting = 0;
            pending_dec();
        }
        if (pair->second != nullptr) {
            target->callback(target->context, pair->second->data, pair->second->length);
        } else {
            target->callback(target->context, nullptr, 0);
        }
    }
    xpair_basefree(pair);
}

// Subscribes what is not subscribed. The library's first refusal ends it: the rest waits for the next open.
void kv_register_all() {
    kv_registration* registration;
    DL_FOREACH(registrations, registration) {
        if (registration->id != 0) {
            continue;
        }
        if (!libkarvel_register_notification(kv_handle, registration->name_space, registration->group,
                                             registration->key, &registration->id, on_notification, on_register_fail,
                                             CONFIRM_SUBSCRIPTION, registration)) {
            pending_reset();
            reopen_arm();
            return;
        }
        registration->awaiting = 1;
        pending_inc();
    }
}

// --- the link ------------------------------------------------------------------------------------------------------

// Leaves kv_handle as it is: a closed handle is as good as none to the library, and what is tried on it fails and arms
// the reopen timer.
void kv_link_close() {
    if (kv_handle == nullptr) {
        return;
    }
    struct ev_loop* const loop = ev_default_loop(0);
    pending_reset();
    libkarvel_close(kv_handle);
    ev_timer_stop(loop, &timeout_timer);
    ev_io_stop(loop, &link_io);
    ev_async_stop(loop, &commit_async);
    ev_async_stop(loop, &register_async);
    kv_registration* registration;
    DL_FOREACH(registrations, registration) {
        registration->id = 0;
    }
}

// 0: open, and what kv_commit pushes is pushed. -1: closed, and tried again in a second.
int kv_link_open() {
    struct ev_loop* const loop = ev_default_loop(0);
    kv_link_close();
    kv_handle = libkarvelev_config_open(loop, 0);
    if (kv_handle != nullptr && kv_commit() >= 0) {
        // A send to an async watcher that was stopped is dropped by its start; nothing is lost, since everything is
        // pushed and subscribed right here.
        ev_async_start(loop, &register_async);
        ev_async_start(loop, &commit_async);
        kv_register_all();
        return 0;
    }
    kv_link_close();
    reopen_arm();
    return -1;
}

void on_register_fail(karvel_response*, void*) {
    log_warning("Fail to register notification in karvel. Reopen..");
    (void)kv_link_open();  // tries again by itself
}

// --- watchers ------------------------------------------------------------------------------------------------------

void on_reopen(struct ev_loop* loop, ev_timer* timer, int) {
    if (kv_link_open() == 0) {
        ev_timer_stop(loop, timer);
    }
}

void on_timeout(struct ev_loop*, ev_timer*, int) {
    if (kv_handle != nullptr) {
        libkarvel_timeout_process(kv_handle);
    }
}

void on_link_io(struct ev_loop*, ev_io*, int) {
    if (kv_handle != nullptr && !libkarvel_xhandle_response(kv_handle)) {
        (void)kv_link_open();  // tries again by itself
    }
}

void on_commit(struct ev_loop*, ev_async*, int) {
    (void)kv_commit();  // what fails stays dirty, and the reopen timer is armed
}

void on_register(struct ev_loop*, ev_async*, int) {
    kv_register_all();
}

}  // namespace

int kv_init() {
    ev_timer_init(&reopen_timer, on_reopen, REOPEN_S, REOPEN_S);
    ev_timer_init(&timeout_timer, on_timeout, TIMEOUT_CHECK_S, TIMEOUT_CHECK_S);
    ev_io_init(&link_io, on_link_io, -1, EV_READ);
    ev_async_init(&commit_async, on_commit);
    ev_async_init(&register_async, on_register);
    (void)kv_link_open();  // tries again by itself
    return 0;
}

// The value strings and the registrations' copied strings are left to the end of the process, which follows at once.
void kv_exit() {
    if (kv_commit() < 0) {
        log_warning("[config] Fail to commit changes on exit.");
    }
    kv_link_close();
    struct ev_loop* const loop = ev_default_loop(0);
    ev_timer_stop(loop, &reopen_timer);
    ev_async_stop(loop, &commit_async);

    kv_entry* entry;
    kv_entry* next_entry;
    HASH_ITER(hh, entries, entry, next_entry) {
        HASH_DEL(entries, entry);  // NOLINT(clang-analyzer-unix.Malloc): it misses that the last one leaves no head
        free(entry);
    }
    kv_registration* registration;
    kv_registration* next_registration;
    DL_FOREACH_SAFE(registrations, registration, next_registration) {
        DL_DELETE(registrations, registration);
        free(registration);
    }
}

int kv_register(const char* name_space, const char* group, const char* key, kv_callback callback, void* context) {
    auto* registration = static_cast<kv_registration*>(calloc(1, sizeof(kv_registration)));
    if (registration == nullptr) {
        return -1;
    }
    if ((registration->key = strdup(key)) == nullptr || (registration->name_space = strdup(name_space)) == nullptr ||
        (registration->group = strdup(group)) == nullptr) {
        const int error = errno;
        free(registration->name_space);
        free(registration->key);
        free(registration);
        errno = error;
        return -1;
    }
    registration->callback = callback;
    registration->context = context;
    DL_APPEND(registrations, registration);
    ev_async_send(ev_default_loop(0), &register_async);
    return 0;
}

void kv_set_str(const char* name_space, const char* key, const char* value, size_t length) {
    char* copy = strndup(value, length);
    if (copy == nullptr) {
        log_err("[config] Fail to dup value for %s: %s", key, strerror(errno));
        return;
    }
    kv_entry* entry = entry_find(key);
    if (entry != nullptr) {
        if (entry->value != nullptr && strcmp(entry->value, copy) == 0) {
            free(copy);
            return;
        }
        free(entry->value);
        entry->value = copy;
    } else {
        entry = entry_add(name_space, key, copy);
        if (entry == nullptr) {
            // The copy, as far as it was asked for: the caller's bytes need have no end.
            log_err("[config] can not create new key \"%s\" with value \"%s\".", key, copy);
            free(copy);
            return;
        }
    }
    entry->dirty = 1;
    kv_dirty = 1;
    (void)kv_commit();  // what fails stays dirty for the next open
}

const char* kv_get_str(const char* key) {
    const kv_entry* entry = entry_find(key);
    return entry != nullptr ? entry->value : nullptr;
}

void kv_request_commit() {
    ev_async_send(ev_default_loop(0), &commit_async);
}

void kvmem_set(const char* key, const char* value) {
    kv_set_str(MEM, key, value, strlen(value));
}

void kvmem_sync(const char* key) {
    kv_entry* entry = entry_find(key);
    if (entry == nullptr) {
        entry = entry_add(MEM, key, nullptr);
        if (entry == nullptr) {
            abort();
        }
    }
    if (!libkarvel_get_value(kv_handle, MEM, nullptr, key, on_kvmem_sync, nullptr, READ_ALLOWED_DEFAULT, entry)) {
        perror("libkarvel_get_value");
        abort();
    }
    while (entry->dirty != 0) {
        ev_run(ev_default_loop(0), EVRUN_ONCE);
    }
}
