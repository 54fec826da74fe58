// One clip of the index as it is printed.
#pragma once

struct kyt_record;

void clip_print_heading();
void clip_print_text(const kyt_record* record);
void clip_print_json(const kyt_record* record);  // one object, without an end of line
void clip_print_csv(const kyt_record* record);
