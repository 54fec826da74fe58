// The card made new: unmounted, given one partition that spans it, and a FAT filesystem on that. Whatever a stage
// comes to, the card is mounted again behind it: the fresh filesystem, or what a failed stage has left of the old one.
#include "cl_mkfs.h"

#include <errno.h>
#include <stdarg.h>
#include <string.h>

#include "cl_card.h"
#include "cl_execvp.h"
#include "cl_umount.h"
#include "closure.h"
#include "mmc.h"
#include "mountpoint.h"
#include "vesk_util.h"

namespace {

// The steps, in the order in which they fire. cl_next_mkfs takes the card off its mount point; then
void next_fdisk(closure_frame* frame, void*);      // writes the partition table
void next_partprobe(closure_frame* frame, void*);  // has the kernel read it, and makes the filesystem
void next_finish(closure_frame* frame, void*);     // mounts the card again

// To fdisk: a new DOS table (o), a new partition (n), primary (p), number 1 (1), from the first sector to the last (two
// empty lines), of type (t) FAT32 with LBA (c), written (w).
constexpr char fdisk_script[] = "o\nn\np\n1\n\n\nt\nc\nw\n";
// Its NUL is sent too. fdisk has what it needs by then and leaves at the "w". That holds for BusyBox's, which cameras
// have. The one of util-linux (2.38) takes all lines in at once and then, before each of them, waits for more to come:
// with the pipe open until it ends, it never does.
static_assert(sizeof fdisk_script == 17);

constexpr char JOB[] = "mkfs";

__attribute__((format(printf, 1, 2))) void cl_mkfs_err(const char* format, ...) {
    va_list args;
    va_start(args, format);
    log_vperr("cl_mkfs: ", format, args);
    va_end(args);
}

}  // namespace

void cl_next_mkfs(closure_frame* frame) {
    cl_card_remember();
    closure_debug_next("cl_next_mkfs", "cl_next_umount", "next_fdisk");
    closure_setup_frame(frame, next_fdisk, nullptr);
    frame->status = CLOSURE_BUSY;
    cl_next_umount(frame);
}

namespace {

void next_fdisk(closure_frame* frame, void*) {
    if (frame->status != CLOSURE_OK) {
        cl_mkfs_err("Unable to umount sdcard.");
        (void)mountpoint_mount();  // a card that cannot be mounted shows in the state
        closure_return(frame);
        return;
    }
    const char* const disk = mmc_get_manager()->disk.path;
    if (!cl_card_is_same(JOB, disk)) {
        (void)mountpoint_mount();
        closure_fail(frame, ENODEV);
        return;
    }
    const char* const fdisk_argv[] = {"fdisk", disk, nullptr};
    closure_debug_next("next_fdisk", "cl_next_execvp_write", "next_partprobe");
    closure_setup_frame(frame, next_partprobe, nullptr);
    frame->status = CLOSURE_BUSY;
    cl_next_execvp_write(frame, fdisk_argv, fdisk_script, sizeof fdisk_script);
}

// True: fdisk has done its work and the kernel knows the one partition. False: *code is what the job fails with.
bool find_partition(const closure_frame* frame, int32_t* code) {
    const mmc_manager* const mmc = mmc_get_manager();
    if (frame->status != CLOSURE_OK) {
        *code = frame->result;
        cl_mkfs_err("unable to re-create the partition table.");
        return false;
    }
    if (!cl_card_is_same(JOB, mmc->disk.path)) {
        *code = ENODEV;
        return false;
    }
    if (mmc_partprobe() < 0) {
        *code = errno;
        cl_mkfs_err("can not rescan partitions: %s", strerror(*code));
        return false;
    }
    if (mmc->partition_count != 1) {
        // Looked at once, as it is: nothing here waits for an event. The kernel has told of the partition while
        // fdisk still ran, so that it is in the socket by now; but the loop handles a child's exit before everything
        // else that is pending, that socket included. Where the kernel gave the processor to fdisk and not to the
        // daemon in between, the format therefore ends here, with a count of 0: seldom (docs/measurements.md). The
        // table on the card is good and its partition known a moment later; whoever wanted the format asks for it
        // again. The events of the re-read just asked for come later still, and to the same partition.
        *code = EINVAL;
        cl_mkfs_err("Unexpected partition count: %d.", static_cast<int>(mmc->partition_count));
        return false;
    }
    *code = ENODEV;
    return cl_card_is_same(JOB, mmc->partitions[0].path);
}

void next_partprobe(closure_frame* frame, void*) {
    int32_t code = 0;
    if (!find_partition(frame, &code)) {
        (void)mountpoint_mount();
        closure_fail(frame, code);
        return;
    }
    const char* const mkfs_argv[] = {"mkfs.fat", "-n", "QX_CAM", mmc_get_manager()->partitions[0].path, nullptr};
    closure_debug_next("next_partprobe", "cl_next_execvp", "next_finish");
    closure_setup_frame(frame, next_finish, nullptr);
    frame->status = CLOSURE_BUSY;
    cl_next_execvp(frame, mkfs_argv);
}

void next_finish(closure_frame* frame, void*) {
    if (frame->status != CLOSURE_OK) {
        cl_mkfs_err("unable to make new filesystem.");
    }
    (void)mountpoint_mount();
    closure_return(frame);
}

}  // namespace
