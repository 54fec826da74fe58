// The command line that all daemons share.
#pragma once

struct app_options {
    const char* bus;  // the broker's address; null: the bus library's own choice
    bool foreground;  // log to standard error
    int log_level;    // the least urgent level that is logged, a syslog number
};

enum class options_result {
    RUN,       // options are filled in
    ANSWERED,  // --help or --version was answered on standard output: the process is done
    MISUSED,   // makes no sense; explained on standard error
};

// Reads the command line; options are untouched unless the result is RUN. name: the daemon's.
options_result options_read(const char* name, int argc, char** argv, app_options* options);
