// The chains of the card's jobs, which end when the test says so. Left out of a test that links the real ones.
#include "cl_eject.h"
#include "cl_fsck.h"
#include "cl_mkfs.h"
#include "support/card_rig.h"

namespace {

void start_chain(closure_frame* frame, const std::string& text) {
    rig::step(text);
    EXPECT_EQ(&sd.closure, frame);
    EXPECT_EQ(CLOSURE_BUSY, frame->status);
    EXPECT_EQ(&frame->slots[0], frame->top) << "the bottom continuation and nothing else";
    rig::world.running = frame;
}

}  // namespace

void cl_next_mkfs(closure_frame* frame) {
    start_chain(frame, "cl_next_mkfs");
}
void cl_next_fsck(closure_frame* frame, const char* device) {
    start_chain(frame, std::string("cl_next_fsck ") + device);
}
void cl_next_eject(closure_frame* frame) {
    start_chain(frame, "cl_next_eject");
}
