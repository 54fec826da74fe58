// Card jobs one after another, of every outcome, and what they leave behind: descriptors, memory, children, a hold on
// mounting. The steps, the runner and the tools are the real ones, the card is two image files, and what only a kernel
// with a card can do (mount, read the table again, eject) is answered here. Each job's outcome is known beforehand.
//
//   jobs_bench [JOBS [SEED]]     500 jobs by default, about a minute: a busy card waits for real
//
// Ends with 1 when an outcome is another than expected, or when anything has grown. Tells too how long the longest
// round of the loop was: so long a request by key may have to wait while the tools run.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <ev.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cl_eject.h"
#include "cl_fsck.h"
#include "cl_mkfs.h"
#include "closure.h"
#include "mmc.h"
#include "mountpoint.h"
#include "rpc.h"
#include "vesk_util.h"

namespace fs = std::filesystem;

// --- the neighbours ---------------------------------------------------------------------------------------------

namespace {

mmc_manager card;
int refusals;         // so many times the unmount is refused
int partprobe_error;  // 0: the table is read again
int eject_error;      // 0: the card is ejected
bool held;            // automatic mounting is held off
bool ended;
long alerts;
long log_lines;
FILE* report;  // our standard output; the tools have a file for theirs

int answer(int error) {
    errno = error;
    return error == 0 ? 0 : -1;
}

}  // namespace

int mountpoint_umount() {
    held = true;
    return answer(refusals > 0 && refusals-- > 0 ? EBUSY : 0);
}
int mountpoint_mount() {
    held = false;
    return 0;
}
void mountpoint_clear_mask() {
    held = false;
}
mmc_manager* mmc_get_manager() {
    return &card;
}
uint32_t mmc_get_insertion() {
    return 0;
}
bool mmc_is_node_known(const char*) {
    return true;  // an image file
}
int mmc_partprobe() {
    return answer(partprobe_error);
}
int mmc_eject() {
    return answer(eject_error);
}
void rpc_send_alert_umount_fail(int32_t count, const char (*)[RPC_FUSER_NAME_SIZE]) {
    alerts += count > 0;
}

extern "C" {
void log_debug(const char*, ...) {
    ++log_lines;
}
void log_warning(const char*, ...) {
    ++log_lines;
}
void log_err(const char*, ...) {
    ++log_lines;
}
void log_vpdebug(const char*, const char*, va_list) {
    ++log_lines;
}
void log_vperr(const char*, const char*, va_list) {
    ++log_lines;
}
}

namespace {

// --- the tools --------------------------------------------------------------------------------------------------

enum tool_outcome { WORKS, EXITS_1, KILLED, MISSING, LOUD, OUTCOMES };
constexpr const char* OUTCOME_NAMES[] = {"works", "exits 1", "killed", "missing", "loud"};
constexpr int CODES[] = {0, 1, -1, 99, 0};

std::string folder;

void write_script(const char* name, const char* text) {
    const std::string path = folder + "/" + name;
    std::ofstream(path) << "#!/bin/sh\n" << text << "\n";
    chmod(path.c_str(), 0755);
}

// The first of the places that has the tool; empty: none.
std::string find_tool(const char* name) {
    for (const char* place : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/"}) {
        if (access((place + std::string(name)).c_str(), X_OK) == 0) {
            return place + std::string(name);
        }
    }
    return "";
}

// Makes the tool on the search path behave so from now on.
void place_tool(const std::string& name, tool_outcome outcome) {
    const std::string at = folder + "/bin/" + name;
    unlink(at.c_str());
    std::string target;
    switch (outcome) {
        case WORKS:
            target = name == "fuser" || name == "fdisk" ? folder + "/" + name : find_tool(name.c_str());
            break;
        case EXITS_1:
            target = folder + "/exits-1";
            break;
        case KILLED:
            target = folder + "/killed";
            break;
        case LOUD:
            target = folder + "/loud";
            break;
        case MISSING:
        case OUTCOMES:
            return;
    }
    if (symlink(target.c_str(), at.c_str()) != 0) {
        perror("symlink");
        exit(2);
    }
}

void make_card() {
    card.state = MMC_STATE_RDWR;
    card.partition_count = 1;
    snprintf(card.disk.path, sizeof card.disk.path, "disk");
    snprintf(card.partitions[0].path, sizeof card.partitions[0].path, "part");
    for (const char* image : {"disk", "part"}) {
        std::ofstream(folder + "/" + image).flush();
        fs::resize_file(folder + "/" + image, 64U << 20);
    }
    if (chdir(folder.c_str()) != 0) {  // the paths of a card's devices are short
        perror(folder.c_str());
        exit(2);
    }
    setenv("PATH", (folder + "/bin").c_str(), 1);
}

// --- rounds of the loop -----------------------------------------------------------------------------------------

struct round_clock {
    ev_check begin;  // behind the wait for events
    ev_prepare end;  // before the next one
    double cpu_begin_ms;
    double wall_begin_ms;
    double cpu_longest_ms;   // of this thread's processor time: the same however busy the machine is
    double wall_longest_ms;  // with what other programs have taken away
};

round_clock rounds;

double read_ms(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

void on_round_begin(struct ev_loop*, ev_check*, int) {
    rounds.cpu_begin_ms = read_ms(CLOCK_THREAD_CPUTIME_ID);
    rounds.wall_begin_ms = read_ms(CLOCK_MONOTONIC);
}

// The round that goes on has come to its end. Once for each.
void note_round() {
    if (rounds.wall_begin_ms == 0) {
        return;
    }
    rounds.cpu_longest_ms = std::max(rounds.cpu_longest_ms, read_ms(CLOCK_THREAD_CPUTIME_ID) - rounds.cpu_begin_ms);
    rounds.wall_longest_ms = std::max(rounds.wall_longest_ms, read_ms(CLOCK_MONOTONIC) - rounds.wall_begin_ms);
    rounds.wall_begin_ms = 0;
}

void on_round_end(struct ev_loop*, ev_prepare*, int) {
    note_round();
}

void watch_rounds() {
    ev_check_init(&rounds.begin, on_round_begin);
    ev_set_priority(&rounds.begin, EV_MAXPRI);  // before what the round is about
    ev_check_start(ev_default_loop(0), &rounds.begin);
    ev_prepare_init(&rounds.end, on_round_end);
    ev_set_priority(&rounds.end, EV_MINPRI);
    ev_prepare_start(ev_default_loop(0), &rounds.end);
}

// --- the jobs ---------------------------------------------------------------------------------------------------

enum job_kind { FORMAT, CHECK, EJECT, KINDS };
constexpr const char* KIND_NAMES[] = {"format", "check", "eject"};

struct plan {
    job_kind kind;
    int refusals;
    tool_outcome fuser;
    tool_outcome first;   // fdisk or fsck.fat
    tool_outcome second;  // mkfs.fat
    int kernel_error;     // of reading the table again, or of the eject
    int partitions;

    int expected() const {
        if (refusals >= 10) {
            return EBUSY;
        }
        if (kind == EJECT) {
            return kernel_error;
        }
        if (CODES[first] != 0 || kind == CHECK) {
            return CODES[first];
        }
        if (kernel_error != 0) {
            return kernel_error;
        }
        return partitions != 1 ? EINVAL : CODES[second];
    }
};

plan draw(std::mt19937& random) {
    const auto one_in = [&](unsigned n) { return random() % n == 0; };
    const auto outcome = [&] { return one_in(2) ? WORKS : static_cast<tool_outcome>(random() % OUTCOMES); };
    plan p = {};
    p.kind = static_cast<job_kind>(random() % KINDS);
    p.refusals = one_in(100) ? 10 : one_in(8) ? 1 + static_cast<int>(random() % 3) : 0;
    p.fuser = outcome();
    p.first = outcome();
    p.second = outcome();
    p.kernel_error = one_in(6) ? EIO : 0;
    p.partitions = one_in(6) ? static_cast<int>(random() % 4) : 1;
    return p;
}

void on_done(closure_frame*, void*) {
    ended = true;
    ev_break(ev_default_loop(0), EVBREAK_ONE);
}

void on_deadline(struct ev_loop*, ev_timer*, int) {
    fprintf(report, "jobs_bench: a job does not end\n");
    exit(1);
}

void run_job(closure_frame* frame, const plan& p) {
    refusals = p.refusals;
    partprobe_error = p.kernel_error;
    eject_error = p.kernel_error;
    card.partition_count = p.partitions;
    place_tool("fuser", p.fuser);
    place_tool("fdisk", p.first);
    place_tool("fsck.fat", p.first);
    place_tool("mkfs.fat", p.second);
    ended = false;
    held = false;
    closure_setup_frame(frame, on_done, nullptr);
    frame->status = CLOSURE_BUSY;
    switch (p.kind) {
        case FORMAT:
            cl_next_mkfs(frame);
            break;
        case CHECK:
            cl_next_fsck(frame, card.partitions[0].path);
            break;
        case EJECT:
        case KINDS:
            cl_next_eject(frame);
            break;
    }
    ev_timer deadline;
    ev_timer_init(&deadline, on_deadline, 60.0, 0.0);
    ev_now_update(ev_default_loop(0));
    ev_timer_start(ev_default_loop(0), &deadline);
    while (!ended) {
        ev_run(ev_default_loop(0), 0);
    }
    ev_timer_stop(ev_default_loop(0), &deadline);
    note_round();
}

// --- what is left behind ----------------------------------------------------------------------------------------

struct figures {
    int descriptors;
    size_t heap_bytes;  // allocated and not freed
    long resident_kib;
    double cpu_ms;  // ours, the tools not counted
};

figures look() {
    figures f = {};
    DIR* dir = opendir("/proc/self/fd");
    while (dir != nullptr && readdir(dir) != nullptr) {
        ++f.descriptors;
    }
    closedir(dir);
    f.descriptors -= 3;  // ".", "..", and the folder itself
    f.heap_bytes = mallinfo2().uordblks;
    long size = 0;
    std::ifstream("/proc/self/statm") >> size >> f.resident_kib;
    f.resident_kib *= sysconf(_SC_PAGESIZE) / 1024;
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    f.cpu_ms = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
               static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
    return f;
}

void print(const char* when, const figures& f) {
    fprintf(report, "%-14s %d descriptors, %zu bytes of heap in use, %ld KiB resident\n", when, f.descriptors,
            f.heap_bytes, f.resident_kib);
    fflush(report);
}

}  // namespace

int main(int argc, char** argv) {
    const int jobs = argc > 1 ? atoi(argv[1]) : 500;
    const unsigned seed = argc > 2 ? static_cast<unsigned>(atoi(argv[2])) : 1;
    const int warm_up = 20;  // the C library's own buffers have their size behind these
    for (const char* name : {"fdisk", "mkfs.fat", "fsck.fat"}) {
        if (find_tool(name).empty()) {
            fprintf(stderr, "jobs_bench: no %s on this machine\n", name);
            return 2;
        }
    }
    (void)signal(SIGPIPE, SIG_IGN);  // as the framework does
    char pattern[] = "/tmp/vesk-jobs-XXXXXX";
    folder = mkdtemp(pattern);
    fs::create_directory(folder + "/bin");
    write_script("exits-1", "exit 1");
    write_script("killed", "kill -9 $$");
    write_script("loud", "n=0; while [ $n -lt 500 ]; do echo not-an-id; n=$((n + 1)); done");
    write_script("fuser", "echo \" $PPID 1\"");
    // A workbench's fdisk wants its input to end, a camera's does not: see cl_mkfs.cpp.
    write_script("fdisk", ("/usr/bin/head -c 17 | " + find_tool("fdisk") + " \"$1\" >/dev/null").c_str());
    make_card();
    report = fdopen(dup(STDOUT_FILENO), "w");
    if (report == nullptr || freopen((folder + "/output").c_str(), "a", stdout) == nullptr ||
        dup2(STDOUT_FILENO, STDERR_FILENO) < 0) {
        perror("jobs_bench");
        return 2;
    }
    fcntl(fileno(report), F_SETFD, FD_CLOEXEC);
    fprintf(report, "%d jobs, seed %u\n", jobs, seed);

    closure_frame frame;
    closure_init(&frame, nullptr);
    watch_rounds();
    std::mt19937 random(seed);
    // What works is needed before what fails: a check wants a filesystem.
    run_job(&frame, {FORMAT, 0, WORKS, WORKS, WORKS, 0, 1});

    figures first = look();
    int wrong = 0;
    long reportable = 0;          // rounds of a fuser that names somebody
    long by_kind[KINDS][2] = {};  // jobs that succeeded, and that failed
    for (int i = 0; i < jobs; ++i) {
        if (i == warm_up) {
            first = look();
            print("at job 20", first);
        }
        const plan p = draw(random);
        reportable += p.fuser == WORKS && p.refusals > 1 ? p.refusals - 1 : 0;
        run_job(&frame, p);
        const bool failed = frame.status != CLOSURE_OK;
        ++by_kind[p.kind][failed];
        if (frame.result != p.expected() || failed != (p.expected() != 0) || held ||
            frame.top != closure_empty(&frame)) {
            ++wrong;
            fprintf(
                report,
                "job %d: %s, %d refusals, fuser %s, tools %s and %s, kernel %d, %d partitions: %d instead of %d%s\n", i,
                KIND_NAMES[p.kind], p.refusals, OUTCOME_NAMES[p.fuser], OUTCOME_NAMES[p.first], OUTCOME_NAMES[p.second],
                p.kernel_error, p.partitions, frame.result, p.expected(), held ? ", mounting still held off" : "");
        }
    }
    const figures last = look();
    print("at the end", last);
    for (int kind = 0; kind < KINDS; ++kind) {
        fprintf(report, "%-14s %ld succeeded, %ld failed\n", KIND_NAMES[kind], by_kind[kind][0], by_kind[kind][1]);
    }
    fprintf(report, "%ld alerts of %ld, %ld log lines, %.2f ms of processor a job\n", alerts, reportable, log_lines,
            (last.cpu_ms - first.cpu_ms) / (jobs - warm_up));
    fprintf(report, "longest round of the loop: %.2f ms of processor, %.2f ms in all\n", rounds.cpu_longest_ms,
            rounds.wall_longest_ms);
    const bool child_left = waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD;
    const bool grown = last.descriptors != first.descriptors || last.heap_bytes > first.heap_bytes;
    fprintf(report, "%d wrong outcomes, %s, %s\n", wrong, grown ? "GROWN" : "nothing grown",
            child_left ? "CHILDREN LEFT" : "no child left");
    fs::remove_all(folder);
    return wrong != 0 || grown || child_left ? 1 : 0;
}
