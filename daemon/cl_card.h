// The card that the running job began with: no other may be formatted, checked or ejected in its place. Nobody who
// pulls a card while a job waits for it, and puts in another one, may lose what is on that. Loop thread only.
//
// What remains are the milliseconds between the look and the moment at which the tool itself opens the device: a swap
// that the kernel is through with in between is not seen.
#pragma once

// Every job's first act.
void cl_card_remember();

// Right before anything is done to the disk or to the device at this path: is it still that card? If not, there is an
// error line, and the job fails with ENODEV by the way that its failed steps take. job: its name, as in the log at its
// end.
bool cl_card_is_same(const char* job, const char* path);
