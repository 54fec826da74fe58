// Loaded before the daemon's libraries (LD_PRELOAD), it measures in the daemon itself what the deletion of clips takes.
// For every so many videos unlinked, DELETION_TIMER_CLIPS of them, one line on standard error:
//   deletion_timer: clips 1000 wall_us 3012000 user_us 410000 system_us 2390000
// wall: from one line's last unlink to the next one's, so that what lies between two clips counts; the first clip opens
// the count and is not in it. user and system: of the whole process.
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <sys/resource.h>

namespace {

struct spent {
    int64_t wall_us;
    int64_t user_us;
    int64_t system_us;
};

spent last;
std::atomic<int> clips;

int64_t to_us(const timeval& time) {
    return static_cast<int64_t>(time.tv_sec) * 1'000'000 + time.tv_usec;
}

spent now() {
    timespec wall;
    clock_gettime(CLOCK_MONOTONIC, &wall);
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return {static_cast<int64_t>(wall.tv_sec) * 1'000'000 + wall.tv_nsec / 1000, to_us(usage.ru_utime),
            to_us(usage.ru_stime)};
}

// With the number of the clip that is gone, the first being 0. Several threads may come here; each line is one's own.
void count(int number) {
    const char* const wanted = getenv("DELETION_TIMER_CLIPS");
    const int lap = wanted != nullptr ? atoi(wanted) : 100;
    if (number % lap != 0) {
        return;
    }
    const spent at = now();
    if (number != 0) {
        fprintf(stderr, "deletion_timer: clips %d wall_us %lld user_us %lld system_us %lld\n", lap,
                static_cast<long long>(at.wall_us - last.wall_us), static_cast<long long>(at.user_us - last.user_us),
                static_cast<long long>(at.system_us - last.system_us));
    }
    last = at;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int unlink(const char* name) noexcept {
    using unlink_call = int (*)(const char*);
    static const auto real = reinterpret_cast<unlink_call>(dlsym(RTLD_NEXT, "unlink"));
    const int result = real(name);
    const size_t length = strlen(name);
    if (result == 0 && length > 4 && strcmp(name + length - 4, ".mp4") == 0) {
        count(clips++);
    }
    return result;
}
