#include "options.h"

#include <cstdio>
#include <getopt.h>
#include <syslog.h>

#include "log.h"

namespace {

enum option_key { BUS, FOREGROUND, LOG_LEVEL, VERSION, HELP };
constexpr option OPTIONS[] = {
    {"bus", required_argument, nullptr, BUS},
    {"foreground", no_argument, nullptr, FOREGROUND},
    {"log-level", required_argument, nullptr, LOG_LEVEL},
    {"version", no_argument, nullptr, VERSION},
    {"help", no_argument, nullptr, HELP},
    {nullptr, 0, nullptr, 0},
};

void print_help(const char* name) {
    (void)printf(
        "Usage: %s [OPTION]...\n"
        "  --bus ADDRESS      the broker: unix:PATH or tcp:HOST:PORT (default: $VESK_BUS,\n"
        "                     else unix:/run/karveld/karveld.sock)\n"
        "  --foreground       log to standard error even where nobody seems to read it\n"
        "  --log-level LEVEL  least urgent level to log: crit, err, warning, info (default), debug\n"
        "  --version          print name and version\n"
        "  --help             print this\n",
        name);
}

options_result misused(const char* name) {
    (void)fprintf(stderr, "Try '%s --help'.\n", name);
    return options_result::MISUSED;
}

}  // namespace

options_result options_read(const char* name, int argc, char** argv, app_options* options) {
    app_options read = {nullptr, false, LOG_INFO};

    optind = 0;  // from the start, whoever used getopt before
    int key = 0;
    while ((key = getopt_long(argc, argv, "", OPTIONS, nullptr)) != -1) {
        switch (key) {
            case BUS:
                read.bus = optarg;
                break;
            case FOREGROUND:
                read.foreground = true;
                break;
            case LOG_LEVEL:
                read.log_level = log_level_of(optarg);
                if (read.log_level < 0) {
                    (void)fprintf(stderr, "%s: unknown log level '%s'\n", name, optarg);
                    return misused(name);
                }
                break;
            case VERSION:
                (void)printf("%s %s\n", name, VESK_VERSION);
                return options_result::ANSWERED;
            case HELP:
                print_help(name);
                return options_result::ANSWERED;
            default:
                return misused(name);  // getopt_long has said what is wrong
        }
    }
    if (optind < argc) {
        (void)fprintf(stderr, "%s: unexpected argument '%s'\n", name, argv[optind]);
        return misused(name);
    }
    *options = read;
    return options_result::RUN;
}
