// List files that cannot be used keep what they hold under another name, KYT_BAD0.LST to KYT_BAD3.LST, the oldest
// first.
#pragma once

#include "array.h"
#include "kyt.h"
#include "phrases.h"

namespace kyt {

// Renames the list file; the fourth and later ones share a name, so that a card that goes bad again and again does not
// fill up with them. Bad sectors stay where no clip will be written. Adds to `done` what happened.
void aside_move(int folder, phrases* done);

// Removes the oldest of them and adds that to `done`. False: there is none.
bool aside_remove_oldest(int folder, phrases* done);

// Adds the live records of all of them, ascending by ts, of one ts the marked one first. False: out of memory.
bool aside_read(int folder, array<kyt_record>* records);

}  // namespace kyt
