// The tools that the daemon runs. Between fork and exec the child is a real process, so that what the daemon does there
// is done; what it would have become then goes on here, in simulated time.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

#include "descriptors.h"
#include "faults.h"
#include "invariants.h"
#include "real.h"
#include "world.h"

namespace sim {

bool in_child;

namespace {

constexpr size_t FDISK_SCRIPT_BYTES = 17;
constexpr char FDISK_SCRIPT[] = "o\nn\np\n1\n\n\nt\nc\nw\n";
constexpr pid_t FIRST_PID = 5000;
constexpr int NOT_FOUND = 99;
constexpr int64_t PATIENCE_NS = 420 * SECOND;  // of somebody with a tool that hangs

enum tool : uint8_t { FDISK, MKFS, FSCK, FUSER, TOOLS };
enum class manner : uint8_t { GOOD, FAILS, KILLED, HANGS, LIES, MISSING, CHATTERS, STOPS };

struct child {
    pid_t pid = 0;
    std::vector<std::string> argv;
    std::shared_ptr<pipe_buffer> input;
    std::shared_ptr<pipe_buffer> output;
    int exit_code = 0;         // of one that never became a tool
    std::shared_ptr<card> on;  // the card that it has open
};

struct ended {
    pid_t pid;
    int status;
};

pid_t next_pid = FIRST_PID;
int alive;
bool spawn_failed;
std::deque<ended> unreaped;
manner manners[TOOLS];

// In the child: where its standard input and output lead.
int child_input = -1;
int child_output = -1;
int report_fd = -1;

tool tool_of(const std::string& name) {
    if (name == "fdisk") {
        return FDISK;
    }
    if (name == "mkfs.fat") {
        return MKFS;
    }
    if (name == "fsck.fat") {
        return FSCK;
    }
    if (name == "fuser") {
        return FUSER;
    }
    violation("the daemon runs %s", name.c_str());
}

void end_child(const std::shared_ptr<child>& c, int status) {
    if (c->input != nullptr) {
        --c->input->readers;
    }
    if (c->output != nullptr) {
        --c->output->writers;
    }
    --alive;
    note("tool: %d ended with status 0x%x", c->pid, static_cast<unsigned>(status));
    unreaped.push_back({c->pid, status});
    changed();
    deliver_signal(SIGCHLD);
}

int fdisk_end(const child& c, manner how) {
    if (c.argv.size() != 2 || c.input == nullptr || c.input->bytes != std::string(FDISK_SCRIPT, FDISK_SCRIPT_BYTES)) {
        // A write that was made to fail is not repeated.
        if (failures_of(call::WRITE) == 0) {
            violation("fdisk was given %zu bytes", c.input != nullptr ? c.input->bytes.size() : 0);
        }
        return 1;
    }
    if (c.on == nullptr || c.on != slot) {
        return 1;
    }
    after_fdisk(how == manner::LIES);
    return 0;
}

int mkfs_end(const child& c, manner how) {
    if (c.argv.size() != 4 || c.argv[1] != "-n" || c.argv[2] != "QX_CAM") {
        violation("mkfs.fat was given %zu arguments", c.argv.size());
    }
    for (const mounted& m : mounts) {
        if (m.from == slot && m.target == "/mnt/sdcard") {
            note("world: mkfs.fat found the card mounted");
            return 1;
        }
    }
    if (c.on == nullptr || c.on != slot || !find_device(c.argv[3])) {
        return 1;
    }
    after_mkfs(c.argv[3], how == manner::LIES);
    return 0;
}

int fuser_end(const child& c, manner how) {
    if (c.argv.size() != 3 || c.argv[1] != "-m" || c.argv[2] != "/mnt/sdcard" || c.output == nullptr) {
        violation("fuser was given %zu arguments", c.argv.size());
    }
    if (how == manner::CHATTERS) {
        for (int i = 0; i < 40; ++i) {
            c.output->bytes += " 700 701 9999";
        }
        return 0;
    }
    if (now_ns() >= held_until_ns) {
        return 1;
    }
    c.output->bytes += how == manner::LIES ? " x 99999999999 -3\n" : " 700 701 702\n";
    return 0;
}

int work_of(const child& c, manner how) {
    switch (tool_of(c.argv[0])) {
        case FDISK:
            return fdisk_end(c, how);
        case MKFS:
            return mkfs_end(c, how);
        case FSCK:
            return c.argv.size() == 3 && c.argv[1] == "-aw" ? 0 : 16;
        case FUSER:
            return fuser_end(c, how);
        case TOOLS:
            break;
    }
    return 1;
}

// A tool does its work when it has all of its input, and waits for that as long as somebody has patience with it.
void work(const std::shared_ptr<child>& c, manner how, int64_t patience_ns) {
    const bool is_waiting = c->input != nullptr && c->input->writers > 0 && c->input->bytes.size() < FDISK_SCRIPT_BYTES;
    if (is_waiting && patience_ns > 0) {
        later(50 * MS, [c, how, patience_ns] { work(c, how, patience_ns - 50 * MS); });
        return;
    }
    if (is_waiting) {
        end_child(c, SIGKILL);
        return;
    }
    const int code = work_of(*c, how);
    // The kernel's events come before the tool is through.
    later(20 * MS, [c, code] { end_child(c, code << 8); });
}

void start(const std::shared_ptr<child>& c) {
    if (c->exit_code != 0) {
        for (manner& m : manners) {  // somebody brings the missing one back
            m = m == manner::MISSING ? manner::GOOD : m;
        }
        later(3 * MS, [c] { end_child(c, c->exit_code << 8); });
        return;
    }
    const tool which = tool_of(c->argv[0]);
    if (which != FUSER) {
        if (const auto found = find_device(c->argv.back())) {
            c->on = found->of;
            check_job_card(c->argv[0].c_str(), *c->on);
        }
    }
    const manner how = manners[which];
    manners[which] = manner::GOOD;
    const int64_t takes_ns = which == FUSER ? 80 * MS : which == FDISK ? 900 * MS : 4 * SECOND;
    switch (how) {
        case manner::FAILS:
            later(takes_ns, [c] { end_child(c, 1 << 8); });
            break;
        case manner::KILLED:
            later(takes_ns / 2, [c] { end_child(c, SIGKILL); });
            break;
        case manner::HANGS:  // until somebody loses patience with it
            later(PATIENCE_NS, [c] { end_child(c, SIGKILL); });
            break;
        case manner::STOPS:  // and goes on: nothing that ends the run
            later(takes_ns / 2, [c] {
                unreaped.push_back({c->pid, 0x137f});
                deliver_signal(SIGCHLD);
            });
            [[fallthrough]];
        default:
            later(takes_ns, [c, how] { work(c, how, PATIENCE_NS); });
            break;
    }
}

void send_report(const std::string& text) {
    (void)!__real_write(report_fd, text.data(), text.size());
}

// What the child has said of itself: its descriptors 0 and 1, then "exec" and the arguments, or "exit" and a code.
std::shared_ptr<child> read_report(int fd) {
    std::string text;
    char bytes[512];
    ssize_t length;
    while ((length = __real_read(fd, bytes, sizeof bytes)) > 0) {
        text.append(bytes, static_cast<size_t>(length));
    }
    std::vector<std::string> words;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\0', at);
        words.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    auto c = std::make_shared<child>();
    c->pid = next_pid++;
    if (words.size() < 4) {
        violation("a child ended before it became anything");
    }
    if (const descriptor* d = get(std::stoi(words[0]))) {
        c->input = d->pipe;
        ++c->input->readers;
    }
    if (const descriptor* d = get(std::stoi(words[1]))) {
        c->output = d->pipe;
        ++c->output->writers;
    }
    if (words[2] == "exit") {
        c->exit_code = std::stoi(words[3]);
        if (c->exit_code != NOT_FOUND) {
            violation("a child that became nothing exits with %d", c->exit_code);
        }
    } else {
        c->argv.assign(words.begin() + 3, words.end());
    }
    std::string line;
    for (const std::string& word : c->argv) {
        line += " " + word;
    }
    note("tool: %d is%s%s", c->pid, line.c_str(), c->exit_code != 0 ? " not to be found" : "");
    return c;
}

std::string where() {
    return std::to_string(child_input) + '\0' + std::to_string(child_output) + '\0';
}

}  // namespace

void child_dup2(int from, int to) {
    if (to == STDIN_FILENO) {
        child_input = from;
    } else if (to == STDOUT_FILENO) {
        child_output = from;
    }
}

void child_exec(const char* program, char* const* argv) {
    std::string text = where() + "exec" + '\0';
    (void)program;
    for (; *argv != nullptr; ++argv) {
        text += *argv;
        text += '\0';
    }
    send_report(text);
    __real__exit(0);
}

void child_exit(int code) {
    send_report(where() + "exit" + '\0' + std::to_string(code) + '\0');
    __real__exit(0);
}

void spoil_tool(uint32_t which, uint32_t how) {
    manners[which % TOOLS] = static_cast<manner>(1 + how % 7);
}

int live_children() {
    return alive;
}

bool had_spawn_failure() {
    return spawn_failed;
}

}  // namespace sim

using namespace sim;

extern "C" {

pid_t __wrap_fork(void) {
    spend(CALL_NS);
    if (must_fail(call::FORK)) {
        spawn_failed = true;
        return -1;
    }
    check_inherited();
    // The daemon looks for the program only in the child, so what it would find is settled before.
    fflush(stdout);
    int ends[2];
    if (__real_pipe2(ends, 0) != 0) {
        violation("the simulator has no pipe");
    }
    const pid_t real = __real_fork();
    if (real == 0) {
        in_child = true;
        report_fd = ends[1];
        return 0;
    }
    __real_close(ends[1]);
    const std::shared_ptr<child> c = read_report(ends[0]);
    __real_close(ends[0]);
    (void)__real_waitpid(real, nullptr, 0);
    if (++alive > 1) {
        violation("%d tools run at once", alive);
    }
    (void)must_fail(call::EXEC);  // counted here; it has failed in the child
    start(c);
    changed();
    return c->pid;
}

int __wrap_dup2(int from, int to) {
    if (!in_child) {
        violation("dup2 in the daemon");
    }
    child_dup2(from, to);
    return to;
}

int __wrap_execvp(const char* program, char* const* argv) {
    if (must_fail(call::EXEC) || manners[tool_of(program)] == manner::MISSING) {
        errno = ENOENT;
        return -1;
    }
    child_exec(program, argv);
}

[[noreturn]] void __wrap__exit(int code) {
    if (in_child) {
        child_exit(code);
    }
    check_abort();
    end_of_life("the process exits by itself");
}

pid_t __wrap_waitpid(pid_t pid, int* status, int options) {
    if (pid != -1 || (options & WNOHANG) == 0) {
        violation("waitpid %d %d", pid, options);
    }
    if (unreaped.empty()) {
        errno = ECHILD;
        return alive > 0 ? 0 : -1;
    }
    const ended e = unreaped.front();
    unreaped.pop_front();
    *status = e.status;
    return e.pid;
}

}  // extern "C"
