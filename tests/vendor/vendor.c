// A stand-in for a vendor's closed libraries: every call of the public headers, each doing as little as it can. Built
// into six shared libraries with the vendor's names, to see that the daemon builds and links against such a directory.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "karvel.h"
#include "kyt.h"
#include "vesk_statistics.h"
#include "vesk_util.h"

#ifdef VENDOR_vesk_util
// Refuses to start, and shows that it was asked.
int app_init(const struct vesk_app_descriptor* descriptor, int argc, char** argv) {
    (void)argc;
    (void)argv;
    printf("vendor app_init: %s\n", descriptor->name);
    errno = EPERM;
    return -1;
}
int app_run(void) {
    return 0;
}
void app_fini(void) {}
int rand_range(int a, int b) {
    return b < a ? b : a;
}
#define LOG(level)                                                             \
    void log_##level(const char* format, ...) {                                \
        (void)format;                                                          \
    }                                                                          \
    void log_vp##level(const char* prefix, const char* format, va_list args) { \
        (void)prefix;                                                          \
        (void)format;                                                          \
        (void)args;                                                            \
    }
LOG(crit)
LOG(err)
LOG(warning)
LOG(info)
LOG(debug)
#endif

#ifdef VENDOR_vesk_statistics
int report_stat_object(const char* event_name, struct json_object* object) {
    return event_name && object ? 0 : -1;
}
#endif

#ifdef VENDOR_karvelev
karvel_handle* libkarvelev_config_open(struct ev_loop* loop, int flags) {
    (void)loop;
    (void)flags;
    return NULL;
}
#endif

#ifdef VENDOR_karvel
void libkarvel_close(karvel_handle* handle) {
    (void)handle;
}
bool libkarvel_set_value(karvel_handle* handle, const char* name_space, const char* group, const char* key, int keep,
                         const char* value, karvel_callback on_ok, karvel_callback on_fail, int timeout_s,
                         void* context) {
    return handle && name_space && group && key && keep && value && on_ok && on_fail && timeout_s && context;
}
bool libkarvel_register_notification(karvel_handle* handle, const char* name_space, const char* group, const char* key,
                                     uint32_t* id, karvel_callback on_notify, karvel_callback on_fail, int confirm,
                                     void* context) {
    return handle && name_space && group && key && id && on_notify && on_fail && confirm && context;
}
bool libkarvel_get_value(karvel_handle* handle, const char* name_space, const char* group, const char* key,
                         karvel_callback on_done, void* unused, int timeout_s, void* context) {
    return handle && name_space && group && key && on_done && !unused && timeout_s && context;
}
void libkarvel_timeout_process(karvel_handle* handle) {
    (void)handle;
}
bool libkarvel_xhandle_response(karvel_handle* handle) {
    return handle != NULL;
}
#endif

#ifdef VENDOR_karvel_share
struct karvel_xpair* xresponse_parse(karvel_response* response, int* error) {
    *error = response ? EINVAL : ENODATA;
    return NULL;
}
void xpair_basefree(struct karvel_xpair* pair) {
    (void)pair;
}
int xcontrol_get_response(karvel_response* response, const struct karvel_xvalue** value) {
    (void)response;
    (void)value;
    return 0;
}
#endif

#ifdef VENDOR_kyt
kyt_handle* kyt_open_rdwr(void) {
    return NULL;
}
void kyt_close(kyt_handle* handle) {
    (void)handle;
}
void kyt_close_dirty(kyt_handle* handle) {
    (void)handle;
}
int kyt_optimise(kyt_handle* handle) {
    return handle ? 0 : -1;
}
struct kyt_record* kyt_get(kyt_handle* handle, uint32_t ts) {
    (void)handle;
    (void)ts;
    return NULL;
}
struct kyt_record* kyt_next(kyt_handle* handle, const struct kyt_record* prev) {
    (void)handle;
    (void)prev;
    return NULL;
}
int kyt_write(kyt_handle* handle, const struct kyt_record* record) {
    return handle && record ? 0 : -1;
}
int kyt_mark_deleted(kyt_handle* handle, struct kyt_record* record) {
    return handle && record ? 0 : -1;
}
int kyt_ts2path(uint32_t ts, char* buffer, size_t size, int flag) {
    return ts && buffer && size && flag ? 0 : -1;
}
uint32_t kyt_path2ts(const char* name, int flag) {
    return (uint32_t)strlen(name) * (uint32_t)flag;
}
int kyt_record_parse(struct kyt_record* record, const char* text, size_t length) {
    return record && text && length ? 0 : -1;
}
#endif
