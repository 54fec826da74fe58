// Opens recordings folders as the camera does after a power cut, each in a process of its own, and tells what is left.
//
// A request is a line: FOLDER VOLUME CUT. VOLUME is the serial number of the folder's FAT volume. CUT above 0: first a
// repair that is cut in its turn, at a random call and with any part of what had not been synchronised (torn_card.h);
// CUT is the seed. The answer:
//   log TEXT           what the library logs during the last repair, which nothing disturbs
//   nameless           a rename was cut such that a file is lost
//   clip TS SECONDS FLAGS
//   health NUMBER      what kyt_check finds wrong with the list afterwards: 0
//   end 0              or the errno of what failed, or minus the signal that ended the process
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "handle.h"
#include "kyt_rdonly.h"
#include "support/libc_calls.h"
#include "torn_card.h"

namespace {

constexpr unsigned PATIENCE_S = 60;
bool telling;

void tell(const char* format, va_list args) {
    if (telling) {
        std::fputs("log ", stdout);
        std::vprintf(format, args);
        std::fputs("\n", stdout);
    }
}

// The thread of a list that was left ends by itself; until then it holds the list's lock.
void await_keeper() {
    struct stat tasks = {};
    while (stat("/proc/self/task", &tasks) == 0 && tasks.st_nlink > 2 + 1) {  // two links of the folder's own
        usleep(20);
    }
}

// Opens the folder's list, and leaves what a cut in the middle of that leaves. False: it does not open.
bool cut_repair(const char* folder, unsigned seed) {
    std::mt19937 random(seed);
    torn::watch();
    torn::card card(folder);
    card.take_over();
    card.begin_log();
    kyt_handle* const list = kyt::open_folder(folder);
    const bool is_open = list != nullptr && kyt::settle(list);
    kyt_close_dirty(list);
    await_keeper();
    const torn::remains left = card.cut_at(random() % (card.log_size() + 1), &random);
    card.lay(left);
    if (left.nameless) {
        std::puts("nameless");
    }
    libc_calls::reset();
    return is_open;
}

int reopen(const char* folder, uint32_t volume, int cut) {
    alarm(PATIENCE_S);
    libc_calls::set_volume(volume);
    if (cut > 0 && !cut_repair(folder, static_cast<unsigned>(cut))) {
        return errno;
    }
    libc_calls::set_volume(volume);
    telling = true;
    if (kyt_repair(folder) != 0) {
        return errno;
    }
    kyt_handle* const list = kyt_open_rdonly(folder);
    if (list == nullptr) {
        return errno;
    }
    for (const kyt_record* clip = kyt_next(list, nullptr); clip != nullptr; clip = kyt_next(list, clip)) {
        std::printf("clip %u %u %u\n", clip->ts, kyt_record_seconds(clip), clip->flags);
    }
    kyt_close(list);
    kyt_health health = {};
    if (kyt_check(folder, &health) != 0) {
        return errno;
    }
    std::printf("health %u\n", health.header_damaged + health.other_version + health.open + health.other_byte_order +
                                   health.wrong_size + health.out_of_order + health.destroyed + health.unreadable +
                                   health.twice + health.undeleted);
    return 0;
}

}  // namespace

#define TELL(name)                                  \
    extern "C" void name(const char* format, ...) { \
        va_list args;                               \
        va_start(args, format);                     \
        tell(format, args);                         \
        va_end(args);                               \
    }
TELL(log_err)
TELL(log_warning)
TELL(log_info)

int main() {
    char line[4096];
    char folder[4096];
    unsigned volume = 0;
    int cut = 0;
    while (std::fgets(line, sizeof line, stdin) != nullptr) {
        if (std::sscanf(line, "%4095s %u %d", folder, &volume, &cut) != 3) {
            return 2;
        }
        const pid_t child = fork();
        if (child == 0) {
            const int error = reopen(folder, volume, cut);
            std::fflush(stdout);
            std::_Exit(error);
        }
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child) {
            return 1;
        }
        std::printf("end %d\n", WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status));
        std::fflush(stdout);
    }
    return 0;
}
