// Preloaded into the daemon on the camera: what it has synchronised is marked in the log of the card's writes by a
// write to the sector behind the partition table, which belongs to nobody. The card's driver itself tells the card
// nothing: an SD card has no command for it.
//
// It also lets the loop's clock be put forward, by as many seconds as CLOCK_FILE holds, so that the half hour between
// two passes of maintenance need not be waited for. The other threads' clock is the real one: they wait by it.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#define SECTOR 512
#define CLOCK_FILE "/run/clock_ahead"

static void mark(void) {
    static _Alignas(SECTOR) unsigned char sector[SECTOR] = "VESK SYNC";
    const int card = open("/dev/mmcblk0", O_WRONLY | O_DIRECT | O_CLOEXEC);
    if (card >= 0) {
        (void)!pwrite(card, sector, SECTOR, SECTOR);
        close(card);
    }
}

static int synchronise(const char* name, int fd) {
    int (*const real)(int) = (int (*)(int))dlsym(RTLD_NEXT, name);
    const int result = real(fd);
    if (result == 0) {
        mark();
    }
    return result;
}

int fdatasync(int fd) {
    return synchronise("fdatasync", fd);
}

int fsync(int fd) {
    return synchronise("fsync", fd);
}

int clock_gettime(clockid_t clock, struct timespec* now) {
    const int result = (int)syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && clock == CLOCK_MONOTONIC && syscall(SYS_gettid) == getpid()) {
        char text[16] = "";
        const int file = open(CLOCK_FILE, O_RDONLY | O_CLOEXEC);
        if (file >= 0) {
            (void)!read(file, text, sizeof text - 1);
            close(file);
            now->tv_sec += atoi(text);
        }
    }
    return result;
}
