// The log. A message is formatted and made one line on the caller's stack and leaves in a single write of at most
// PIPE_BUF bytes, which no other thread's or process' write can split. Nothing is allocated, locked or kept open here,
// so logging works from the first instruction to the last, static destructors and other threads at exit included.
#include "log.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "vesk_util.h"

namespace {

constexpr size_t LINE_SIZE = 4096;            // PIPE_BUF of Linux: the longest write to a pipe that stays in one piece
constexpr std::string_view CUT_MARK = "...";  // ends a line that was longer

struct level_name {
    std::string_view name;
    int level;
};
constexpr level_name LEVELS[] = {
    {"crit", LOG_CRIT}, {"err", LOG_ERR}, {"warning", LOG_WARNING}, {"info", LOG_INFO}, {"debug", LOG_DEBUG},
};

std::atomic<int> least_level{LOG_INFO};
std::atomic<log_target> current_target{log_target::STANDARD_ERROR};

struct line {
    char bytes[LINE_SIZE];
    size_t length = 0;
    bool cut = false;
};

void append(line& out, std::string_view text) {
    // Room is kept for the cut mark, and for the line's end or the NUL that syslog wants.
    if (text.size() > LINE_SIZE - CUT_MARK.size() - 1 - out.length) {
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

// A reader that went away or a full disk costs the message, never the caller.
void write_line(const line& out) {
    while (write(STDERR_FILENO, out.bytes, out.length) < 0 && errno == EINTR) {
    }
}

__attribute__((format(printf, 3, 0))) void log_message(int level, const char* prefix, const char* format,
                                                       va_list args) {
    if (level > least_level.load(std::memory_order_relaxed)) {
        return;
    }
    const int saved_errno = errno;
    const bool to_syslog = current_target.load(std::memory_order_relaxed) == log_target::SYSLOG;

    line out;
    if (!to_syslog) {
        const char mark[] = {'<', static_cast<char>('0' + level), '>'};
        append(out, {mark, sizeof mark});
    }
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

    if (to_syslog) {
        out.bytes[out.length] = '\0';
        syslog(level, "%s", out.bytes);
    } else {
        out.bytes[out.length++] = '\n';
        write_line(out);
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
    if (target == log_target::SYSLOG) {
        openlog(name, LOG_PID, LOG_DAEMON);
    }
    least_level = level;
    current_target = target;
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
