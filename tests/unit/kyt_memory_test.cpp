// Memory that runs out, at every place where it is asked for.
#include "support/kyt_file_rig.h"

namespace {

using namespace kyt_rig;
using libc_calls::MEMORY;
using testing::PrintToString;

PROMISES("kyt", "The list");

struct KytMemory : file_rig {
    // For a body that has had its refusal: there may be a later one.
    static void repeat(bool happened) {
        libc_calls::fail(MEMORY, 1, ENOMEM, happened ? 1 : 0);
        free(malloc(1));
    }
    // Runs `body` with one request for memory refused, a later one each time, until none was. The last one's number.
    template <typename Body>
    int with_each_refused(Body body) {
        for (int nth = 1;; nth += 1 + nth / 8) {
            const size_t descriptors = open_descriptors();
            libc_calls::fail(MEMORY, nth, ENOMEM);
            body(nth);
            const bool happened = libc_calls::failed();
            libc_calls::stop_failing();
            close();
            EXPECT_TRUE(await([&] { return open_descriptors() == descriptors; })) << nth;
            if (!happened || HasFatalFailure()) {
                return nth - 1;
            }
        }
    }
};

TEST_F(KytMemory, AnOpeningFailsWholeOrHasAll) {
    PROMISE("memory runs out during an opening, wherever",
            "no list, ENOMEM, and nothing is left open, or the log says that the folder could not be read; the next "
            "opening has all clips and marks");
    const std::string damaged = with_record(with_record(whole, 5, {1, {2, 3}, 4, 5}), 7, record_at(whole, 6));
    const std::string deleted = with_record(left_open(), 1, kyt::deleted_record(record_at(whole, 1)));
    for (const std::string& bytes : {whole, left_open(), damaged, deleted, of_other_order(whole)}) {
        put(bytes);
        const int refused = with_each_refused([&](int nth) {
            put(bytes);
            list = opened();
            if (!list) {
                EXPECT_EQ(errno, ENOMEM);
            } else {
                EXPECT_TRUE(kyt_count(list) == CLIPS || logged::has_part("folder cannot be read")) << nth;
                kyt_close_dirty(list);
                list = nullptr;
            }
            libc_calls::stop_failing();
            ASSERT_TRUE(await([&] { return (list = opened()) != nullptr || errno != EBUSY; }));
            ASSERT_EQ(kyt_count(list), CLIPS) << nth;
            EXPECT_EQ(kyt_get(list, ts_of(0))->flags, 1) << nth;
            EXPECT_EQ(kyt_get(list, ts_of(699))->flags, 1);
        });
        EXPECT_GE(refused, 2);
        EXPECT_EQ(card.files(), std::set<std::string>{LIST});
    }
}

TEST_F(KytMemory, ACallFailsWholeOrSucceeds) {
    PROMISE("memory runs out while clips are written, deleted and maintained",
            "each call does what it says or fails with ENOMEM; the list stays usable, and nothing comes back");
    int failures = 0;
    with_each_refused([&](int nth) {
        put(whole);
        libc_calls::stop_failing();
        open();
        libc_calls::fail(MEMORY, nth, ENOMEM);
        std::set<uint32_t> expected;
        for (uint32_t i = 0; i < CLIPS; ++i) {
            expected.insert(ts_of(i));
        }
        const auto note = [&](int result, bool adds, uint32_t ts) {
            EXPECT_TRUE(result == 0 || errno == ENOMEM);
            failures += result != 0 ? 1 : 0;
            if (result == 0 && adds) {
                expected.insert(ts);
            } else if (result == 0) {
                expected.erase(ts);
            }
        };
        for (uint32_t i = 0; i < 60; ++i) {
            note(kyt_mark_deleted(list, kyt_get(list, ts_of(i))), false, ts_of(i));
            note(add(ts_of(CLIPS + i)), true, ts_of(CLIPS + i));
            if (i % 20 == 0) {
                EXPECT_TRUE(kyt_optimise(list) == 0 || errno == ENOMEM);
                await_comparison();
            }
        }
        const std::vector<uint32_t> found = all_ts(list);
        EXPECT_TRUE(std::equal(found.begin(), found.end(), expected.begin(), expected.end())) << nth;
        const bool happened = libc_calls::failed();
        libc_calls::stop_failing();
        libc_calls::set_time(BASE);  // nothing has ended that is not in the list
        optimise();
        optimise();
        EXPECT_EQ(all_ts(list), found) << nth;
        repeat(happened);
    });
    EXPECT_LE(failures, 10);
}

TEST_F(KytMemory, AComparisonWithoutMemoryFindsNothingWrongAndTheNextOneAll) {
    PROMISE("memory runs out during a comparison", "what it has not seen counts as not seen; the next one finds it");
    const uint32_t lost = ts_of(CLIPS) + 7 * 3600;
    with_each_refused([&](int nth) {
        libc_calls::stop_failing();
        put(whole);
        card.remove_clip(lost);
        open();
        const kyt_record* const slot = kyt_get(list, ts_of(3));
        remove(ts_of(3));  // its files stay
        card.add_clip(lost);
        libc_calls::fail(MEMORY, nth, ENOMEM);
        EXPECT_TRUE(kyt_optimise(list) == 0 || errno == ENOMEM);
        await_comparison();
        EXPECT_TRUE(kyt_optimise(list) == 0 || errno == ENOMEM);
        const bool happened = libc_calls::failed();
        libc_calls::stop_failing();
        await_comparison();
        ASSERT_EQ(add(lost + 1), 0);
        EXPECT_NE(kyt_get(list, lost + 1), slot) << nth << ": the slot of a clip that is still there";
        optimise();
        EXPECT_NE(kyt_get(list, lost), nullptr) << nth;
        EXPECT_EQ(kyt_get(list, ts_of(3)), nullptr) << nth;
        EXPECT_EQ(kyt_count(list), CLIPS + 1);
        repeat(happened);
    });
}

TEST_F(KytMemory, MoreClipsThanAListCanHold) {
    PROMISE("there are more clips on the card than a list can hold", "the log says how many stay out of it");
    std::string full = left_open();
    full.resize(kyt::MAX_BYTES);
    for (uint32_t slot = CLIPS; slot < kyt::MAX_RECORDS - 10; ++slot) {
        const kyt_record record = kyt::live_record(BASE + 10'000'000 + slot, 0, 0);
        std::memcpy(full.data() + kyt::offset_of(slot), &record, sizeof record);
    }
    put(full);
    for (uint32_t i = 0; i < 15; ++i) {
        card.add_clip(ts_of(CLIPS + i));
    }
    open();
    EXPECT_EQ(kyt_count(list), kyt::MAX_RECORDS);
    EXPECT_TRUE(logged::has_part("more clips than a list can hold: 5 stay out of it"))
        << PrintToString(logged::lines());
    EXPECT_EQ(kyt_get(list, ts_of(0))->flags, 1);
}

}  // namespace
