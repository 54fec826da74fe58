// What veskctl's subcommands share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// How a subcommand ended; the process's exit code.
enum veskctl_exit {
    VESKCTL_DONE = 0,
    VESKCTL_FAILED = 1,      // something else went wrong; a message says what
    VESKCTL_USAGE = 2,       // the command line makes no sense
    VESKCTL_NO_SERVICE = 3,  // the configuration service did not answer, or the daemon behind it
    VESKCTL_NO_CARD = 4,     // no card in service, or no recordings folder with a list
    VESKCTL_BAD_LIST = 5,    // there is a list, but none that can be read, or (index check) not one in order
    VESKCTL_REFUSED = 6,     // by the daemon, the service, a person, or as a list is in use; nothing has changed
    VESKCTL_UNKNOWN = 7,     // asked, and ended or not, but what became of it cannot be known
};

struct veskctl_options {
    bool json;    // one JSON document (watch: one object a line) instead of text
    bool colour;  // escape sequences are welcome
};

constexpr char VESKCTL_FOLDER[] = "/mnt/sdcard/ZOLTA_RECORD_VIDEO";

constexpr double VESKCTL_PATIENCE_S = 5;  // how long the configuration service may take to answer

// Each gets its own arguments, argv[0] being its name.
int veskctl_status(const veskctl_options& options, int argc, char** argv);
int veskctl_watch(const veskctl_options& options, int argc, char** argv);
int veskctl_clips(const veskctl_options& options, int argc, char** argv);
int veskctl_save(const veskctl_options& options, int argc, char** argv);
int veskctl_delete(const veskctl_options& options, int argc, char** argv);
int veskctl_storage(const veskctl_options& options, int argc, char** argv);
int veskctl_format(const veskctl_options& options, int argc, char** argv);
int veskctl_eject(const veskctl_options& options, int argc, char** argv);
int veskctl_busy(const veskctl_options& options, int argc, char** argv);
int veskctl_log(const veskctl_options& options, int argc, char** argv);
int veskctl_index(const veskctl_options& options, int argc, char** argv);
int veskctl_action(const veskctl_options& options, int argc, char** argv);
int veskctl_report(const veskctl_options& options, int argc, char** argv);

// The card state in words by its number as published; null when there is no such state.
const char* veskctl_state_name(long number);

// A state's colour, or "" without colours; veskctl_plain ends it.
const char* veskctl_state_colour(const veskctl_options& options, long number);
const char* veskctl_plain(const veskctl_options& options);

// Reads a subcommand's arguments where it has no options of its own and takes at most so many; they begin at optind.
// False after a message.
bool veskctl_arguments(int argc, char** argv, int at_most);

// Says that the service does not answer. VESKCTL_NO_SERVICE.
int veskctl_no_service();

// Whether the service is this machine's own, and with it the card. Behind a network address it is another one's.
bool veskctl_is_local();

// Asks a person. VESKCTL_DONE: yes. VESKCTL_REFUSED: no. VESKCTL_USAGE after a message: there is nobody to ask.
int veskctl_confirm(const char* question);

// Opens the list of a recordings folder for reading. Null: *code is the exit code, after a message unless there is just
// no list (VESKCTL_NO_CARD).
struct kyt_handle* veskctl_open_list(const char* folder, int* code);

// Bytes from outside as text: what is not UTF-8 becomes U+FFFD. A string object, or null when out of memory.
struct json_object* veskctl_text_json(const char* bytes, size_t length);

// Prints bytes from outside so that a terminal obeys none of them.
void veskctl_print_text(const char* bytes, size_t length);

// Prints an object as one line of JSON and releases it.
void veskctl_print_json(struct json_object* object);

// Flushes standard output. The given exit code, or VESKCTL_FAILED when what was printed did not arrive.
int veskctl_finish(int code);
