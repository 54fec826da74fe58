// Stands in for the camera's recorder: writes clips to the card and announces each one.
//
// A clip is written whole, then announced, and the next one waits until the service has taken the announcement. It is
// relayed, not kept in the service: a clip is announced once, and whoever was away finds it in the folder.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ev.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bus/bus.h"
#include "karvel.h"
#include "kyt.h"
#include "tools/clip.h"
#include "tools/time_text.h"

namespace {

constexpr int EXIT_USAGE = 2;
constexpr int EXIT_NO_SERVICE = 3;
constexpr int EXIT_NO_CARD = 4;
constexpr double SERVICE_PATIENCE_S = 10;  // how long an announcement is tried before it is given up
constexpr unsigned SHUFFLE_MAX = 4096;
constexpr char FOLDER[] = "/mnt/sdcard/ZOLTA_RECORD_VIDEO";
constexpr size_t PATH_SIZE = 4096;

struct options {
    const char* folder = FOLDER;
    uint32_t count = 0;  // 0: until killed
    uint32_t size = 0;   // bytes of an ".mp4"; 0: as it is
    uint32_t start = 0;  // 0: now
    uint32_t seconds = 10;
    double interval_s = -1;  // between two clips; negative: the clip's length
    uint32_t shuffle = 1;    // announcements of so many clips are held back and mixed
    bool persistent = false;
    bool announce = true;
    bool keep_going = false;
};

options chosen;
karvel_handle* service;

enum class answer { NONE, TAKEN, REFUSED };
answer last_answer;

void usage(FILE* out) {
    fprintf(out,
            "usage: vesk_recorder [options]\n"
            "Writes clips to the card as the camera's recorder does, and announces each one.\n"
            "  --count N          stop after N clips (default: go on until killed)\n"
            "  --size SIZE        bytes of each .mp4, at least %u, with k, M or G (default: unpadded)\n"
            "  --start TIME       first clip's time, 2026-11-21T08:00:00Z or seconds since 1970 (default: now)\n"
            "  --seconds N        length of a clip, 1 to 255 (default: 10); the next one starts so much later\n"
            "  --interval S       seconds to wait between two clips (default: a clip's length; 0: none)\n"
            "  --persistent       announce the clips as protected\n"
            "  --shuffle N        hold back the announcements of N clips and make them in a mixed order\n"
            "  --no-announce      write the clips only\n"
            "  --keep-going       go on with the next clip when one cannot be written or announced\n"
            "  --folder DIR       write below DIR instead of %s\n"
            "  --bus ADDRESS      unix:PATH or tcp:HOST:PORT (default: $VESK_BUS or %s)\n"
            "  --version, --help\n"
            "exit codes: 0 done, 1 a clip could not be written, 2 usage, 3 an announcement was not taken,\n"
            "            4 no recordings folder (no card)\n",
            clip_min_bytes(), FOLDER, bus_address());
}

void on_taken(karvel_response*, void*) {
    last_answer = answer::TAKEN;
}
void on_refused(karvel_response*, void*) {
    last_answer = answer::REFUSED;
}
void on_wake(struct ev_loop* loop, ev_timer*, int) {
    ev_break(loop, EVBREAK_ONE);
}

// Runs the loop for a while, so that the link to the service lives on.
void wait_s(double seconds) {
    if (seconds <= 0) {
        return;
    }
    ev_timer timer;
    ev_timer_init(&timer, on_wake, seconds, 0);
    ev_now_update(EV_DEFAULT);
    ev_timer_start(EV_DEFAULT, &timer);
    ev_run(EV_DEFAULT, 0);
    ev_timer_stop(EV_DEFAULT, &timer);
}

double monotonic_s() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Announces one clip and waits until the service has taken it; opens the link anew when it is lost.
bool announce(uint32_t ts) {
    char text[64];
    snprintf(text, sizeof text, chosen.persistent ? "%u,%u,1" : "%u,%u", ts, chosen.seconds);
    const double deadline = monotonic_s() + SERVICE_PATIENCE_S;
    while (monotonic_s() < deadline) {
        last_answer = answer::NONE;
        // Short of a third of the patience: a service that has died and come back is asked again in time.
        if (libkarvel_set_value(service, "mem", nullptr, "sdcard_kyt", 0, text, on_taken, on_refused, 3, nullptr)) {
            ev_timer tick;
            ev_timer_init(&tick, on_wake, 1.0, 1.0);
            ev_timer_start(EV_DEFAULT, &tick);
            while (last_answer == answer::NONE) {
                ev_run(EV_DEFAULT, EVRUN_ONCE);
                libkarvel_timeout_process(service);
            }
            ev_timer_stop(EV_DEFAULT, &tick);
        }
        if (last_answer == answer::TAKEN) {
            return true;
        }
        libkarvel_close(service);
        service = libkarvelev_config_open(EV_DEFAULT, 0);
        if (service == nullptr) {
            wait_s(1.1);
            service = libkarvelev_config_open(EV_DEFAULT, 0);
        }
    }
    fprintf(stderr, "vesk_recorder: the announcement of %u was not taken at %s\n", ts, bus_address());
    return false;
}

// Writes the clip into its period's folder. Never makes the recordings folder: without a card it would be made on the
// camera's own flash. 0, or an exit code after a message.
int write_clip(uint32_t ts) {
    char path[PATH_SIZE];
    char standard[PATH_SIZE];
    if (kyt_ts2path(ts, standard, sizeof standard, 0) < 0) {
        fprintf(stderr, "vesk_recorder: no path for %u: %s\n", ts, strerror(errno));
        return EXIT_FAILURE;
    }
    if (static_cast<size_t>(snprintf(path, sizeof path, "%s%s", chosen.folder, standard + sizeof FOLDER - 1)) >=
        sizeof path) {
        fprintf(stderr, "vesk_recorder: %s: %s\n", chosen.folder, strerror(ENAMETOOLONG));
        return EXIT_FAILURE;
    }
    char* const last = strrchr(path, '/');
    *last = '\0';
    if (mkdir(path, 0755) != 0 && errno != EEXIST) {
        const int error = errno;
        fprintf(stderr, "vesk_recorder: %s: %s\n", path, strerror(error));
        return error == ENOENT ? EXIT_NO_CARD : EXIT_FAILURE;
    }
    *last = '/';
    if (clip_write(path, chosen.size) != 0) {
        fprintf(stderr, "vesk_recorder: %s: %s\n", path, strerror(errno));
        return EXIT_FAILURE;
    }
    return 0;
}

// 0: go on. Above 0: the process ends with this code - 1.
int read_options(int argc, char** argv) {
    static const option table[] = {
        {"count", required_argument, nullptr, 'n'},    {"size", required_argument, nullptr, 's'},
        {"start", required_argument, nullptr, 't'},    {"seconds", required_argument, nullptr, 'l'},
        {"interval", required_argument, nullptr, 'i'}, {"persistent", no_argument, nullptr, 'p'},
        {"shuffle", required_argument, nullptr, 'x'},  {"no-announce", no_argument, nullptr, 'a'},
        {"keep-going", no_argument, nullptr, 'k'},     {"folder", required_argument, nullptr, 'f'},
        {"bus", required_argument, nullptr, 'b'},      {"version", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},           {}};
    int index = 0;
    for (int letter; (letter = getopt_long(argc, argv, "", table, &index)) != -1;) {
        bool fits = true;
        switch (letter) {
            case 'n':
                fits = number_from_text(optarg, 1, UINT32_MAX, &chosen.count);
                break;
            case 's':
                fits = size_from_text(optarg, &chosen.size) && chosen.size >= clip_min_bytes();
                break;
            case 't':
                fits = time_from_text(optarg, &chosen.start);
                break;
            case 'l':
                fits = number_from_text(optarg, 1, 255, &chosen.seconds);
                break;
            case 'i':
                fits = seconds_from_text(optarg, 0, &chosen.interval_s);
                break;
            case 'p':
                chosen.persistent = true;
                break;
            case 'x':
                fits = number_from_text(optarg, 1, SHUFFLE_MAX, &chosen.shuffle);
                break;
            case 'a':
                chosen.announce = false;
                break;
            case 'k':
                chosen.keep_going = true;
                break;
            case 'f':
                chosen.folder = optarg;
                break;
            case 'b':
                fits = bus_address_set(optarg) == 0;
                break;
            case 'v':
                puts("vesk_recorder 0.1.0");
                return 1;
            case 'h':
                usage(stdout);
                return 1;
            default:
                usage(stderr);
                return EXIT_USAGE + 1;
        }
        if (!fits) {
            fprintf(stderr, "vesk_recorder: --%s cannot be \"%s\"\n", table[index].name, optarg);
            return EXIT_USAGE + 1;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "vesk_recorder: what is \"%s\"?\n", argv[optind]);
        return EXIT_USAGE + 1;
    }
    return 0;
}

// Announces what was held back, mixed. False: not all of it was taken.
bool announce_all(uint32_t* held, uint32_t count) {
    bool taken = true;
    for (uint32_t left = count; left > 0; --left) {
        const uint32_t pick = count > 1 ? static_cast<uint32_t>(rand()) % left : 0;
        const uint32_t ts = held[pick];
        held[pick] = held[left - 1];
        taken = announce(ts) && taken;
        if (!taken && !chosen.keep_going) {
            return false;
        }
    }
    return taken;
}

}  // namespace

int main(int argc, char** argv) {
    const int end = read_options(argc, argv);
    if (end > 0) {
        return end - 1;
    }
    uint32_t ts = chosen.start != 0 ? chosen.start : static_cast<uint32_t>(time(nullptr));
    const double interval_s = chosen.interval_s < 0 ? chosen.seconds : chosen.interval_s;
    srand(ts);  // the same start gives the same order
    if (chosen.announce) {
        service = libkarvelev_config_open(EV_DEFAULT, 0);
    }

    static uint32_t held[SHUFFLE_MAX];
    uint32_t held_count = 0;
    int result = 0;
    for (uint32_t made = 0; chosen.count == 0 || made < chosen.count; ++made) {
        int failed = write_clip(ts);
        if (failed == 0 && chosen.announce) {
            held[held_count++] = ts;
        }
        if (held_count == chosen.shuffle) {
            if (!announce_all(held, held_count)) {
                failed = EXIT_NO_SERVICE;
            }
            held_count = 0;
        }
        if (failed != 0) {
            result = failed;
            if (!chosen.keep_going) {
                break;
            }
        }
        if (made + 1 == chosen.count) {
            break;
        }
        if (ts > UINT32_MAX - chosen.seconds) {
            fprintf(stderr, "vesk_recorder: no time is left after %u\n", ts);
            result = EXIT_FAILURE;
            break;
        }
        ts += chosen.seconds;
        wait_s(interval_s);
    }
    // What was held back is on the card, however the run ended.
    if (held_count > 0 && !announce_all(held, held_count) && result == 0) {
        result = EXIT_NO_SERVICE;
    }
    libkarvel_close(service);
    return result;
}
