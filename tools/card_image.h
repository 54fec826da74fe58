// A recordings folder to look at: one that is there, or the one in the image of a card, taken out with mtools and
// without mounting it.
#pragma once

#include <cstddef>
#include <cstdint>

struct card_image {
    char folder[512];    // the recordings folder, or the copy of it
    uint32_t volume;     // the image's FAT serial number; 0: not known, or not an image
    bool is_image;       // folder is a passing copy
    char drive[600];     // the image as mtools names it: FILE@@OFFSET
    char passing[256];   // the folder around the copy
    unsigned had_lists;  // one bit for each name in CARD_LISTS that the image has
};

// The names of the list and of lists that were set aside.
constexpr const char* CARD_LISTS[] = {"KYT.LST", "KYT_BAD0.LST", "KYT_BAD1.LST", "KYT_BAD2.LST", "KYT_BAD3.LST"};
constexpr size_t CARD_LIST_COUNT = sizeof CARD_LISTS / sizeof *CARD_LISTS;

// Opens a recordings folder, the folder that holds one, or an image file. The copy of an image has the lists, and empty
// files in the clips' places when `names` is set. 0, or an exit code after a message; card_image_close in any case.
int card_image_open(const char* path, bool names, card_image* image);

// Brings the copy's lists into the image. 0, or an exit code after a message.
int card_image_write_back(const card_image* image);

void card_image_close(card_image* image);
