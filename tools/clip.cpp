#include "tools/clip.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// The two files become part of the program: a camera has one thing less to install.
__asm__(
    ".section .rodata\n"
    ".global clip_mp4, clip_mp4_end, clip_jpeg, clip_jpeg_end\n"
    ".balign 4\nclip_mp4: .incbin \"" CLIP_FOLDER
    "/clip.mp4\"\nclip_mp4_end:\n"
    ".balign 4\nclip_jpeg: .incbin \"" CLIP_FOLDER
    "/clip.jpeg\"\nclip_jpeg_end:\n"
    ".previous\n");
extern "C" {
extern const unsigned char clip_mp4[], clip_mp4_end[], clip_jpeg[], clip_jpeg_end[];
}

namespace {

constexpr uint32_t BOX_HEADER = 8;  // bytes: length, then the four letters
constexpr size_t PATH_SIZE = 4096;

int write_all(int fd, const unsigned char* bytes, size_t count) {
    while (count > 0) {
        const ssize_t written = write(fd, bytes, count);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return -1;
        }
        bytes += written;
        count -= static_cast<size_t>(written);
    }
    return 0;
}

// A box of type "free" and this many bytes, header included.
int write_padding(int fd, uint32_t bytes) {
    static unsigned char zeros[65536];  // not const, so that they take no room in the file
    const unsigned char header[BOX_HEADER] = {static_cast<unsigned char>(bytes >> 24),
                                              static_cast<unsigned char>(bytes >> 16),
                                              static_cast<unsigned char>(bytes >> 8),
                                              static_cast<unsigned char>(bytes),
                                              'f',
                                              'r',
                                              'e',
                                              'e'};
    if (write_all(fd, header, sizeof header) != 0) {
        return -1;
    }
    for (uint32_t left = bytes - BOX_HEADER; left > 0;) {
        const uint32_t part = std::min<uint32_t>(left, sizeof zeros);
        if (write_all(fd, zeros, part) != 0) {
            return -1;
        }
        left -= part;
    }
    return 0;
}

// Writes one file under a passing name and gives it its own name when it is complete.
int write_file(const char* path, const unsigned char* bytes, size_t count, uint32_t padding) {
    char passing[PATH_SIZE + 8];
    snprintf(passing, sizeof passing, "%s.part", path);
    const int fd = open(passing, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    int result = write_all(fd, bytes, count);
    if (result == 0 && padding > 0) {
        result = write_padding(fd, padding);
    }
    int error = errno;
    if (close(fd) != 0 && result == 0) {
        result = -1;
        error = errno;
    }
    if (result == 0 && rename(passing, path) != 0) {
        result = -1;
        error = errno;
    }
    if (result != 0) {
        unlink(passing);
        errno = error;
    }
    return result;
}

size_t mp4_size() {
    return static_cast<size_t>(clip_mp4_end - clip_mp4);
}

}  // namespace

uint32_t clip_min_bytes() {
    return static_cast<uint32_t>(mp4_size()) + BOX_HEADER;
}

int clip_write(const char* base, uint32_t mp4_bytes) {
    char path[PATH_SIZE];
    if (static_cast<size_t>(snprintf(path, sizeof path, "%s.jpeg", base)) >= sizeof path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (write_file(path, clip_jpeg, static_cast<size_t>(clip_jpeg_end - clip_jpeg), 0) != 0) {
        return -1;
    }
    snprintf(path, sizeof path, "%s.mp4", base);
    const uint32_t padding = mp4_bytes == 0 ? 0 : mp4_bytes - static_cast<uint32_t>(mp4_size());
    return write_file(path, clip_mp4, mp4_size(), padding);
}
