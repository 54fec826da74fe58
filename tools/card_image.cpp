#include "tools/card_image.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tools/veskctl.h"

namespace {

constexpr char FOLDER_NAME[] = "ZOLTA_RECORD_VIDEO";
constexpr char IN_IMAGE[] = "::/ZOLTA_RECORD_VIDEO/";
constexpr size_t SECTOR = 512;
constexpr size_t PERIOD_LENGTH = 10;  // "2026112101"
constexpr size_t CLIP_LENGTH = 19;    // "20261121_012205.mp4"

uint32_t number_at(const unsigned char* bytes) {
    return bytes[0] | static_cast<uint32_t>(bytes[1]) << 8 | static_cast<uint32_t>(bytes[2]) << 16 |
           static_cast<uint32_t>(bytes[3]) << 24;
}

bool is_fat(const unsigned char (&sector)[SECTOR]) {
    return (sector[0] == 0xEB || sector[0] == 0xE9) && sector[11] == 0 && sector[16] >= 1 && sector[16] <= 2;
}

// Finds the FAT volume: the image itself, or its first partition.
bool find_volume(int fd, uint64_t* offset, uint32_t* serial) {
    unsigned char sector[SECTOR];
    *offset = 0;
    if (pread(fd, sector, sizeof sector, 0) != static_cast<ssize_t>(sizeof sector)) {
        return false;
    }
    if (!is_fat(sector)) {
        *offset = uint64_t{number_at(sector + 454)} * SECTOR;
        if (*offset == 0 || pread(fd, sector, sizeof sector, static_cast<off_t>(*offset)) != SECTOR ||
            !is_fat(sector)) {
            return false;
        }
    }
    const bool fat32 = sector[22] == 0 && sector[23] == 0;
    *serial = number_at(sector + (fat32 ? 67 : 39));
    return true;
}

// Starts one of mtools. Its standard output goes into `output`, where wanted. Above 0: its process.
pid_t start(const char* const* arguments, int* output) {
    int ends[2] = {-1, -1};
    if (output != nullptr && pipe2(ends, O_CLOEXEC) != 0) {
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (output != nullptr) {
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    }
    // mtools asks questions on the terminal where it finds one.
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    pid_t child = -1;
    const int failure = posix_spawnp(&child, arguments[0], &actions, nullptr, const_cast<char**>(arguments), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (output != nullptr) {
        close(ends[1]);
        *output = ends[0];
    }
    if (failure != 0) {
        if (output != nullptr) {
            close(ends[0]);
        }
        fprintf(stderr, "veskctl: %s: %s; images are read with mtools\n", arguments[0], strerror(failure));
        return -1;
    }
    return child;
}

// True: it ended with 0.
bool await(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool all_digits(const char* text, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
    }
    return true;
}

// One name in the image, below the recordings folder. Names come from outside: only those that the camera gives are
// made here. False: the copy cannot be made.
bool take_name(card_image* image, const char* name) {
    for (size_t i = 0; i < CARD_LIST_COUNT; ++i) {
        image->had_lists |= strcmp(name, CARD_LISTS[i]) == 0 ? 1U << i : 0;
    }
    const size_t length = strlen(name);
    char path[sizeof image->folder + PERIOD_LENGTH + CLIP_LENGTH + 3];
    if (length < PERIOD_LENGTH || !all_digits(name, PERIOD_LENGTH)) {
        return true;
    }
    if (length == PERIOD_LENGTH + 1 && name[PERIOD_LENGTH] == '/') {
        snprintf(path, sizeof path, "%s/%.*s", image->folder, static_cast<int>(PERIOD_LENGTH), name);
        return mkdir(path, 0700) == 0 || errno == EEXIST;
    }
    const char* const clip = name + PERIOD_LENGTH + 1;
    if (length != PERIOD_LENGTH + 1 + CLIP_LENGTH || clip[-1] != '/' || !all_digits(clip, 8) || clip[8] != '_' ||
        !all_digits(clip + 9, 6) || strcmp(clip + 15, ".mp4") != 0) {
        return true;
    }
    snprintf(path, sizeof path, "%s/%.*s", image->folder, static_cast<int>(PERIOD_LENGTH + 1 + CLIP_LENGTH), name);
    const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    close(fd);
    return true;
}

// Lists one folder of the image, with what is below it where wanted.
bool take_names(card_image* image, bool below) {
    const char* const deep[] = {"mdir", "-/", "-b", "-i", image->drive, IN_IMAGE, nullptr};
    const char* const flat[] = {"mdir", "-b", "-i", image->drive, IN_IMAGE, nullptr};
    int output = -1;
    const pid_t child = start(below ? deep : flat, &output);
    if (child < 0) {
        return false;
    }
    FILE* const lines = fdopen(output, "r");
    if (lines == nullptr) {
        close(output);
        (void)await(child);
        return false;
    }
    bool ok = true;
    char line[1024];
    while (fgets(line, sizeof line, lines) != nullptr) {
        line[strcspn(line, "\n")] = '\0';
        if (strncmp(line, IN_IMAGE, sizeof IN_IMAGE - 1) == 0) {
            ok = take_name(image, line + sizeof IN_IMAGE - 1) && ok;
        }
    }
    fclose(lines);
    return await(child) && ok;
}

bool copy_lists(const card_image* image) {
    bool ok = true;
    for (size_t i = 0; i < CARD_LIST_COUNT; ++i) {
        if ((image->had_lists & (1U << i)) != 0) {
            char from[64];
            snprintf(from, sizeof from, "%s%s", IN_IMAGE, CARD_LISTS[i]);
            const char* const copy[] = {"mcopy", "-n", "-i", image->drive, from, image->folder, nullptr};
            const pid_t child = start(copy, nullptr);
            ok = child > 0 && await(child) && ok;
        }
    }
    return ok;
}

int open_image(const char* path, int fd, bool names, card_image* image) {
    uint64_t offset = 0;
    if (!find_volume(fd, &offset, &image->volume)) {
        fprintf(stderr, "veskctl: %s: no FAT volume in it, and no folder\n", path);
        return VESKCTL_NO_CARD;
    }
    image->is_image = true;
    const char* const place = getenv("TMPDIR");
    if (snprintf(image->drive, sizeof image->drive, "%s@@%llu", path, static_cast<unsigned long long>(offset)) >=
            static_cast<int>(sizeof image->drive) ||
        snprintf(image->passing, sizeof image->passing, "%s/veskctl-XXXXXX",
                 place != nullptr && *place != '\0' ? place : "/tmp") >= static_cast<int>(sizeof image->passing)) {
        image->passing[0] = '\0';
        fprintf(stderr, "veskctl: %s: %s\n", path, strerror(ENAMETOOLONG));
        return VESKCTL_FAILED;
    }
    if (mkdtemp(image->passing) == nullptr) {
        fprintf(stderr, "veskctl: %s: %s\n", image->passing, strerror(errno));
        image->passing[0] = '\0';
        return VESKCTL_FAILED;
    }
    snprintf(image->folder, sizeof image->folder, "%s/%s", image->passing, FOLDER_NAME);
    if (mkdir(image->folder, 0700) != 0 || !take_names(image, names) || !copy_lists(image)) {
        fprintf(stderr, "veskctl: %s: no %s can be read from it\n", path, FOLDER_NAME);
        return VESKCTL_NO_CARD;
    }
    return VESKCTL_DONE;
}

int remove_one(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

}  // namespace

int card_image_open(const char* path, bool names, card_image* image) {
    *image = {};
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    struct stat status = {};
    if (fd < 0 || fstat(fd, &status) != 0) {
        const int error = errno;
        fprintf(stderr, "veskctl: %s: %s\n", path, strerror(error));
        if (fd >= 0) {
            close(fd);
        }
        return error == ENOENT ? VESKCTL_NO_CARD : VESKCTL_FAILED;
    }
    int code = VESKCTL_DONE;
    if (!S_ISDIR(status.st_mode)) {
        code = open_image(path, fd, names, image);
    } else {
        // A card's top folder will do as well.
        const bool around = faccessat(fd, FOLDER_NAME, F_OK, 0) == 0;
        const int length = snprintf(image->folder, sizeof image->folder, around ? "%s/%s" : "%s", path, FOLDER_NAME);
        if (length >= static_cast<int>(sizeof image->folder)) {
            fprintf(stderr, "veskctl: %s: %s\n", path, strerror(ENAMETOOLONG));
            code = VESKCTL_FAILED;
        }
    }
    close(fd);
    return code;
}

int card_image_write_back(const card_image* image) {
    // The new list is there before an old one goes.
    for (size_t i = 0; i < 2 * CARD_LIST_COUNT; ++i) {
        const char* const name = CARD_LISTS[i % CARD_LIST_COUNT];
        const bool removing = i >= CARD_LIST_COUNT;
        char path[sizeof image->folder + 16];
        char target[64];
        snprintf(path, sizeof path, "%s/%s", image->folder, name);
        snprintf(target, sizeof target, "%s%s", IN_IMAGE, name);
        const bool exists = access(path, F_OK) == 0;
        const bool had = (image->had_lists & (1U << i % CARD_LIST_COUNT)) != 0;
        if (removing ? exists || !had : !exists) {
            continue;
        }
        const char* const copy[] = {"mcopy", "-o", "-i", image->drive, path, target, nullptr};
        const char* const drop[] = {"mdel", "-i", image->drive, target, nullptr};
        const pid_t child = start(removing ? drop : copy, nullptr);
        if (child < 0 || !await(child)) {
            fprintf(stderr, "veskctl: the image does not take %s\n", name);
            return VESKCTL_FAILED;
        }
    }
    return VESKCTL_DONE;
}

void card_image_close(card_image* image) {
    if (image->passing[0] != '\0') {
        nftw(image->passing, remove_one, 16, FTW_DEPTH | FTW_PHYS);
        image->passing[0] = '\0';
    }
}
