// veskctl busy: the processes that hold the card, and by what. A holder keeps the card from being formatted or ejected.
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <json-c/json.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "tools/veskctl.h"

namespace {

constexpr char MOUNT_POINT[] = "/mnt/sdcard";
constexpr size_t PATH_SIZE = 512;
constexpr size_t COMMAND_SIZE = 64;

struct search {
    const veskctl_options* options;
    dev_t card;
    int closed;  // processes that do not let themselves be looked into
    bool first;
    // of the process in hand
    long pid;
    char command[COMMAND_SIZE];
};

void report(search* found, const char* how, const char* path) {
    if (!found->options->json) {
        if (found->first) {
            printf("%7s  %-16s  %-4s  %s\n", "process", "command", "by", "path");
        }
        printf("%7ld  ", found->pid);
        const size_t length = strlen(found->command);
        veskctl_print_text(found->command, length);
        printf("%*s  %-4s  ", length < 16 ? static_cast<int>(16 - length) : 0, "", how);
        veskctl_print_text(path, strlen(path));
        putchar('\n');
    } else {
        json_object* object = json_object_new_object();
        json_object_object_add(object, "process", json_object_new_int64(found->pid));
        json_object_object_add(object, "command", veskctl_text_json(found->command, strlen(found->command)));
        json_object_object_add(object, "by", json_object_new_string(how));
        json_object_object_add(object, "path", veskctl_text_json(path, strlen(path)));
        fputs(found->first ? "\n" : ",\n", stdout);
        fputs(json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE), stdout);
        json_object_put(object);
    }
    found->first = false;
}

// One of the links below /proc/<id>, which lead to what is held even where its name is gone.
void look_at_link(search* found, int process, const char* link, const char* how) {
    struct stat target;
    if (fstatat(process, link, &target, 0) != 0) {
        found->closed += errno == EACCES || errno == EPERM ? 1 : 0;
        return;
    }
    if (target.st_dev != found->card) {
        return;
    }
    char path[PATH_SIZE];
    const ssize_t length = readlinkat(process, link, path, sizeof path - 1);
    path[length > 0 ? length : 0] = '\0';
    report(found, how, path);
}

void look_at_files(search* found, int process) {
    const int fd = openat(process, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* files = fd < 0 ? nullptr : fdopendir(fd);
    if (files == nullptr) {
        found->closed += errno == EACCES || errno == EPERM ? 1 : 0;
        if (fd >= 0) {
            close(fd);
        }
        return;
    }
    while (const dirent* entry = readdir(files)) {
        if (isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0) {
            look_at_link(found, dirfd(files), entry->d_name, "file");
        }
    }
    closedir(files);
}

// Each file once, though it is mapped in several pieces: those of one file stand together.
void look_at_maps(search* found, int process) {
    const int fd = openat(process, "maps", O_RDONLY | O_CLOEXEC);
    FILE* maps = fd < 0 ? nullptr : fdopen(fd, "r");
    if (maps == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
        return;
    }
    char line[PATH_SIZE];
    char last[PATH_SIZE] = "";
    while (fgets(line, sizeof line, maps) != nullptr) {
        unsigned major = 0;
        unsigned minor = 0;
        int path = 0;
        line[strcspn(line, "\n")] = '\0';
        if (sscanf(line, "%*s %*s %*s %x:%x %*s %n", &major, &minor, &path) == 2 && path > 0 &&
            makedev(major, minor) == found->card && strcmp(line + path, last) != 0) {
            memmove(last, line + path, strlen(line + path) + 1);
            report(found, "map", last);
        }
    }
    fclose(maps);
}

void look_at_process(search* found, int processes, const char* id) {
    const int process = openat(processes, id, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (process < 0) {
        return;  // it has ended
    }
    found->pid = strtol(id, nullptr, 10);
    memcpy(found->command, "?", 2);
    const int fd = openat(process, "comm", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        const ssize_t length = read(fd, found->command, sizeof found->command - 1);
        close(fd);
        found->command[length > 0 ? length : 0] = '\0';
        found->command[strcspn(found->command, "\n")] = '\0';
    }
    const int closed = found->closed;
    look_at_link(found, process, "cwd", "cwd");
    look_at_link(found, process, "root", "root");
    look_at_link(found, process, "exe", "exe");
    look_at_files(found, process);
    look_at_maps(found, process);
    found->closed = found->closed > closed ? closed + 1 : closed;
    close(process);
}

}  // namespace

int veskctl_busy(const veskctl_options& options, int argc, char** argv) {
    if (!veskctl_arguments(argc, argv, 0)) {
        return VESKCTL_USAGE;
    }
    struct stat card;
    struct stat parent;
    if (stat(MOUNT_POINT, &card) != 0 || stat("/mnt", &parent) != 0 || card.st_dev == parent.st_dev) {
        fputs("veskctl: no card is mounted here\n", stderr);
        return VESKCTL_NO_CARD;
    }
    DIR* processes = opendir("/proc");
    if (processes == nullptr) {
        fprintf(stderr, "veskctl: /proc: %s\n", strerror(errno));
        return VESKCTL_FAILED;
    }
    search found = {};
    found.options = &options;
    found.card = card.st_dev;
    found.first = true;
    if (options.json) {
        putchar('[');
    }
    const long own = getpid();
    while (const dirent* entry = readdir(processes)) {
        if (isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0 && strtol(entry->d_name, nullptr, 10) != own) {
            look_at_process(&found, dirfd(processes), entry->d_name);
        }
    }
    closedir(processes);
    if (options.json) {
        puts(found.first ? "]" : "\n]");
    }
    if (found.closed > 0) {
        fprintf(stderr, "veskctl: %d processes could not be looked into; root can\n", found.closed);
        return VESKCTL_FAILED;
    }
    if (found.first && !options.json) {
        fputs("veskctl: nobody holds the card\n", stderr);
    }
    return VESKCTL_DONE;
}
