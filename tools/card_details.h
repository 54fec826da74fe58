// What a card says of itself, in words. The source is the daemon's "sdcard.info" report or the kernel's files that it
// is made of; both have the same names and the same texts.
#pragma once

struct json_object;

// The report's members "mmc" and "block" of this machine's card, read from /sys. Null: there is no card.
json_object* card_details_local();

// The report in words: an object of "maker", "maker_id", "oem", "name", "serial", "made", "size" (bytes),
// "speed_class", "uhs_grade", "video_class", "app_class", "read_only" in this order, each null where the report does
// not tell. Null: it is no such report.
json_object* card_details_decode(json_object* report);
