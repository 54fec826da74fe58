// What is measured side by side: ways to keep the index of all clips, each by its own best means.
#pragma once

#include <cstdint>

struct index_engine {
    const char* name;
    // The promise under which `append` and `drop_oldest` return.
    const char* durability;

    // Fills an empty folder with these clips, ascending, by whatever way is quickest. False: errno or a message.
    bool (*fill)(const char* folder, const uint32_t* ts, uint32_t count);
    // Null: failed.
    void* (*open)(const char* folder);
    void (*close)(void* index);

    bool (*get)(void* index, uint32_t ts);     // whether there is such a clip
    uint32_t (*walk)(void* index);             // reads all in order of time; how many there are
    bool (*append)(void* index, uint32_t ts);  // one clip, with all that its durability asks of the caller
    bool (*drop_oldest)(void* index);
    bool (*compact)(void* index);  // gives back what deleted clips took
};

extern const index_engine INDEX_KYT;
extern const index_engine INDEX_SQLITE;
extern const index_engine INDEX_LMDB;
extern const index_engine INDEX_LISTING;
