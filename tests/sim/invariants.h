// What must be true of the daemon, worked out from the world alone.
#pragma once

#include <cstdint>
#include <string>

#include "world.h"

namespace sim {

// After each iteration of the loop.
void check_iteration();

// The daemon lets go of the mount table, which it does last of all.
void check_mounts_end();

// After main has returned.
void check_exit();

// The daemon's table of block devices as it follows from what the kernel has told it.
void table_rescan();                                   // it reads /proc/partitions
void table_told(const uevent& e);                      // it has received this
void table_batch_ended();                              // and nothing more waits
void table_opened(std::string_view path, int errnum);  // it has opened a device for writing; 0: successfully
void table_flag_failed();                              // its question for the read-only flag failed
void table_lost();                                     // it has taken the disk for something else
void table_ejected();                                  // it has set the whole disk's read-only flag

// A job does nothing to a card that came after it began.
void job_looked();                                     // it has looked at a device's node
void check_job_card(const char* what, const card& c);  // and now does this to the card

void check_list_opened();
void check_mount();    // the daemon mounts: is it a card that it knows to be writable?
void mounted_once();   // and it has succeeded
void mounts_moved();   // there is a reason for it to mount: a card, or somebody else's mount or unmount
void unmount_tried();  // by the daemon

// Deletions.
void told_free(uint64_t kib);  // how much is free, as the daemon has just been told
void check_unlink(const std::string& path_below_mount_point);
void clip_removed(const std::string& path_below_mount_point);
void clip_listed(filesystem& fs, uint32_t ts, bool is_protected);
void clip_requested(uint32_t ts);    // a remote request wants it deleted, and it is in the list
void memory_lost(live_memory what);  // where that is documented
void unlink_tried(uint32_t ts);      // by a worker

void check_abort();  // is the process allowed to end here?
void heard_log(const std::string& level, const std::string& text);
// The write speed: the daemon has looked at the disk's statistics, or the disk has gone.
void speed_sampled(bool is_read);
void speed_forgotten();

// One turn of the loop, and what its watchdog says of it.
void loop_woke();
void loop_sleeps();
void heard_slow_loop(const std::string& text);

void heard_report(const std::string& event_name, const std::string& json);

}  // namespace sim
