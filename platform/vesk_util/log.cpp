// The log. A message is formatted and made one line on the caller's stack and leaves in a single write of at most
// PIPE_BUF bytes, which no other thread's or process' write can split. Nothing is allocated, locked or kept open here,
// so logging works from the first instruction to the last, static destructors and other threads at exit included.
//
// No call waits for a reader that hangs: a stopped terminal or a stuck log collector would stop the daemon. A burst
// that is ahead of a reader waits PATIENCE_MS for it, and once that was in vain nothing waits until a message has gone
// out again. What finds no room is counted, and told in one line before the next message that does.
//
// The flags of the inherited descriptor are shared with whoever else has it, so they stay as they are. A socket is sent
// to without waiting; a pipe or a device is opened a second time for each message, which gives flags of its own.
// (Asking first whether a pipe has room is no way: another process may take it in between.) The C library's syslog()
// waits for the receiver, and holds a lock meanwhile, so messages go to /dev/log from here.
#include "log.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include "vesk_util.h"

namespace {

constexpr size_t LINE_SIZE = 4096;            // PIPE_BUF of Linux: the longest write to a pipe that stays in one piece
constexpr std::string_view CUT_MARK = "...";  // ends a line that was longer
constexpr int PATIENCE_MS = 20;
constexpr char SYSLOG_SOCKET[] = "/dev/log";

struct level_name {
    std::string_view name;
    int level;
};
constexpr level_name LEVELS[] = {
    {"crit", LOG_CRIT}, {"err", LOG_ERR}, {"warning", LOG_WARNING}, {"info", LOG_INFO}, {"debug", LOG_DEBUG},
};

std::atomic<int> least_level{LOG_INFO};
std::atomic<log_target> current_target{log_target::STANDARD_ERROR};
std::atomic<const char*> syslog_name{""};
std::atomic<bool> reader_hangs{false};
std::atomic<unsigned> unwritten{0};  // messages, since the log last told

struct line {
    char bytes[LINE_SIZE];
    size_t length = 0;
    bool cut = false;
};

void append(line& out, std::string_view text) {
    // Room is kept for the cut mark, the NUL, and for the level's mark and the line's end that deliver adds.
    if (text.size() > LINE_SIZE - CUT_MARK.size() - 4 - out.length) {
        out.cut = true;
    } else if (!out.cut) {
        std::copy(text.begin(), text.end(), out.bytes + out.length);
        out.length += text.size();
    }
}

// Control characters are shown, not sent: a line end would begin a second message, an escape sequence would steer the
// terminal of whoever reads the log.
void append_visible(line& out, std::string_view text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            append(out, {&c, 1});
        } else if (c == '\n') {
            append(out, "\\n");
        } else if (c == '\t') {
            append(out, "\\t");
        } else {
            constexpr char DIGITS[] = "0123456789abcdef";
            const char shown[] = {'\\', 'x', DIGITS[byte >> 4U], DIGITS[byte & 0xfU]};
            append(out, {shown, sizeof shown});
        }
    }
}

// Standard error under flags of its own; -1: it cannot be opened again.
int reopen_standard_error() {
    return open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

int64_t monotonic_ms() {
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Waits for room, within limits. False: the reader hangs.
bool await_room(int fd, int64_t deadline_ms) {
    const int64_t left_ms = deadline_ms - monotonic_ms();
    pollfd room = {fd, POLLOUT, 0};
    if (!reader_hangs && left_ms > 0 && poll(&room, 1, static_cast<int>(left_ms)) == 1) {
        return true;
    }
    reader_hangs = true;
    return false;
}

// Whether all of it was written. A reader that went away or a full disk costs the message, never the caller.
bool write_all(int fd, bool is_socket, const char* bytes, size_t length) {
    const int64_t deadline_ms = monotonic_ms() + PATIENCE_MS;
    while (length > 0) {
        const ssize_t written =
            is_socket ? send(fd, bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL) : write(fd, bytes, length);
        if (written > 0) {
            bytes += written;
            length -= static_cast<size_t>(written);
        } else if (written < 0 && errno == EINTR) {
            continue;
        } else if (written == 0 || (errno != EAGAIN && errno != EWOULDBLOCK) || !await_room(fd, deadline_ms)) {
            return false;
        }
    }
    reader_hangs = false;
    return true;
}

bool write_standard_error(const char* bytes, size_t length) {
    struct stat stream = {};
    if (fstat(STDERR_FILENO, &stream) < 0) {
        return false;
    }
    const bool is_socket = S_ISSOCK(stream.st_mode);
    if (is_socket || (!S_ISFIFO(stream.st_mode) && !S_ISCHR(stream.st_mode))) {
        return write_all(STDERR_FILENO, is_socket, bytes, length);  // a file has no reader that could hang
    }
    const int fd = reopen_standard_error();
    if (fd >= 0) {
        const bool done = write_all(fd, false, bytes, length);
        close(fd);
        return done;
    }
    // No /proc, or not ours to open. A pipe that has room has it for a whole line, unless somebody else takes it first.
    return await_room(STDERR_FILENO, monotonic_ms() + PATIENCE_MS) && write_all(STDERR_FILENO, false, bytes, length);
}

// One connection for each message, as the receiver may be restarted. The time is the receiver's: a time zone would have
// to be looked up here, under a lock of the C library.
bool send_to_syslog(int level, const char* text) {
    char message[LINE_SIZE + 64];
    const int size = snprintf(message, sizeof message, "<%d>%s[%d]: %s", LOG_DAEMON | level, syslog_name.load(),
                              static_cast<int>(getpid()), text);
    if (size < 0) {
        return false;
    }
    const size_t length = std::min(static_cast<size_t>(size), sizeof message - 1);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, SYSLOG_SOCKET, sizeof SYSLOG_SOCKET);
    // Some receivers take a stream, in which a NUL ends a message.
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) {
            return false;
        }
        const bool connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        const bool other_type = !connected && errno == EPROTOTYPE;
        const size_t whole = length + (type == SOCK_STREAM ? 1 : 0);
        const bool done = connected && write_all(fd, true, message, whole);
        close(fd);
        if (!other_type) {
            return done;
        }
    }
    return false;
}

// text: one line without its end. level: for syslog.
bool deliver(int level, const char* text, size_t length) {
    if (current_target.load(std::memory_order_relaxed) == log_target::SYSLOG) {
        return send_to_syslog(level, text);
    }
    char whole[LINE_SIZE];
    whole[0] = '<';
    whole[1] = static_cast<char>('0' + level);
    whole[2] = '>';
    memcpy(whole + 3, text, length);
    whole[3 + length] = '\n';
    return write_standard_error(whole, length + 4);
}

// False: nothing can be written now either.
bool tell_unwritten() {
    const unsigned count = unwritten.exchange(0);
    if (count == 0) {
        return true;
    }
    char text[64];
    const int length = snprintf(text, sizeof text, "log: %u messages could not be written", count);
    if (!deliver(LOG_WARNING, text, static_cast<size_t>(length))) {
        unwritten += count;
        return false;
    }
    return true;
}

__attribute__((format(printf, 3, 0))) void log_message(int level, const char* prefix, const char* format,
                                                       va_list args) {
    if (level > least_level.load(std::memory_order_relaxed)) {
        return;
    }
    const int saved_errno = errno;

    line out;
    append_visible(out, prefix);

    char text[LINE_SIZE];
    const int length = vsnprintf(text, sizeof text, format, args);
    if (length < 0) {
        append_visible(out, format);  // not formattable: better the bare format than nothing
    } else {
        std::string_view message(text, std::min(static_cast<size_t>(length), sizeof text - 1));
        while (!message.empty() && message.back() == '\n') {  // many messages end in a line end of their own
            message.remove_suffix(1);
        }
        append_visible(out, message);
        out.cut = out.cut || static_cast<size_t>(length) >= sizeof text;
    }
    if (out.cut) {
        std::copy(CUT_MARK.begin(), CUT_MARK.end(), out.bytes + out.length);
        out.length += CUT_MARK.size();
    }

    out.bytes[out.length] = '\0';
    if (!tell_unwritten() || !deliver(level, out.bytes, out.length)) {
        ++unwritten;
    }
    errno = saved_errno;
}

}  // namespace

log_target log_choose_target(bool foreground) {
    if (foreground || isatty(STDERR_FILENO) != 0 || getenv("NOTIFY_SOCKET") != nullptr) {
        return log_target::STANDARD_ERROR;
    }
    // "device:inode" of the stream to the journal; inherited by children whose standard error went elsewhere, too.
    const char* journal = getenv("JOURNAL_STREAM");
    struct stat stream = {};
    if (journal != nullptr && fstat(STDERR_FILENO, &stream) == 0) {
        char own[64];
        (void)snprintf(own, sizeof own, "%llu:%llu", static_cast<unsigned long long>(stream.st_dev),
                       static_cast<unsigned long long>(stream.st_ino));
        if (strcmp(own, journal) == 0) {
            return log_target::STANDARD_ERROR;
        }
    }
    return log_target::SYSLOG;
}

void log_open(const char* name, int level, log_target target) {
    syslog_name = name;
    least_level = level;
    current_target = target;
}

void log_finish() {
    (void)tell_unwritten();
}

int log_level_of(std::string_view name) {
    for (const level_name& row : LEVELS) {
        if (row.name == name) {
            return row.level;
        }
    }
    return -1;
}

#define LOG_CALLS(name, level)                                                \
    void log_##name(const char* format, ...) {                                \
        va_list args;                                                         \
        va_start(args, format);                                               \
        log_message(level, "", format, args);                                 \
        va_end(args);                                                         \
    }                                                                         \
    void log_vp##name(const char* prefix, const char* format, va_list args) { \
        log_message(level, prefix, format, args);                             \
    }

LOG_CALLS(crit, LOG_CRIT)
LOG_CALLS(err, LOG_ERR)
LOG_CALLS(warning, LOG_WARNING)
LOG_CALLS(info, LOG_INFO)
LOG_CALLS(debug, LOG_DEBUG)
