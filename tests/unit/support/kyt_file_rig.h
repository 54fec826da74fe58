// A card with 700 clips, every third one protected, and its list, cleanly closed: for what becomes of the file.
#pragma once

#include "support/kyt_rig.h"

namespace kyt_rig {

constexpr uint32_t CLIPS = 700;  // two pages of records and a part of a third
constexpr uint32_t APART = 61;   // in twelve hours
constexpr uint32_t ALL_MARKS = (CLIPS + 2) / 3;
constexpr const char* ASIDE = "KYT_BAD0.LST";

inline uint32_t ts_of(uint32_t clip) {
    return BASE + clip * APART;
}

struct file_rig : rig {
    void SetUp() override {
        rig::SetUp();
        open();
        for (uint32_t i = 0; i < CLIPS; ++i) {
            card.add_clip(ts_of(i));
            ASSERT_EQ(add(ts_of(i), 60, i % 3 == 0 ? 1 : 0), 0);
        }
        close();
        whole = card.bytes(LIST);
        logged::reset();
    }

    // These bytes in place of the list; nothing else is there but the clips.
    void put(const std::string& bytes) const {
        logged::reset();
        card.remove_files();
        card.set_bytes(LIST, bytes);
    }
    std::string left_open() {
        put(whole);
        open();
        close_dirty();
        logged::reset();
        return card.bytes(LIST);
    }

    // Opens and closes twice. All clips of the card must be in the list both times, one line of the log may say what
    // was found, none the second time, and no clip's file may be gone. How many marks there are.
    uint32_t marks_after_opening(uint32_t clips = CLIPS) {
        uint32_t marks = 0;
        for (int round = 0; round < 2; ++round) {
            open();
            if (!list) {
                return 0;
            }
            EXPECT_EQ(kyt_count(list), clips);
            uint32_t found = 0;
            for (const kyt_record* r = kyt_next(list, nullptr); r; r = kyt_next(list, r)) {
                found += r->flags == KYT_PERSISTENT ? 1 : 0;
            }
            EXPECT_TRUE(round == 0 || found == marks);
            marks = found;
            EXPECT_LE(logged::lines().size(), 1U) << logged::lines().back();
            close();
        }
        for (uint32_t i = 0; i < clips; ++i) {
            EXPECT_TRUE(std::filesystem::exists(card.clip(ts_of(i)) + ".mp4"));
            EXPECT_TRUE(std::filesystem::exists(card.clip(ts_of(i)) + ".jpeg"));
        }
        return marks;
    }

    std::string whole;
};

}  // namespace kyt_rig
