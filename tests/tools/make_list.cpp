// Makes or repairs the clip index of any folder with the real library, for tests of what reads it.
// make_list [--hold] FOLDER [ANNOUNCEMENT...]: the clips in the folder and the announced ones. --hold: says "open" and
// keeps the list open until the end of standard input.
#include <cstdio>
#include <cstring>

#include "handle.h"
#include "kyt.h"

int main(int argc, char** argv) {
    const bool hold = argc > 1 && strcmp(argv[1], "--hold") == 0;
    if (hold) {
        ++argv;
        --argc;
    }
    if (argc < 2) {
        return 2;
    }
    kyt_handle* list = kyt::open_folder(argv[1]);
    if (list == nullptr) {
        perror(argv[1]);
        return 1;
    }
    int result = 0;
    for (int i = 2; i < argc && result == 0; ++i) {
        kyt_record record = {};
        if (kyt_record_parse(&record, argv[i], strlen(argv[i])) != 0 || kyt_write(list, &record) != 0) {
            perror(argv[i]);
            result = 1;
        }
    }
    if (hold) {
        puts("open");
        fflush(stdout);
        while (getchar() != EOF) {
        }
    }
    kyt_close(list);
    return result;
}
