#include <cerrno>

#include "repair.h"
#include "vesk_util.h"

namespace kyt {
namespace {

void add_if(bool holds, phrases* p, const char* phrase) {
    if (holds) {
        p->add("%s", phrase);
    }
}

void add_count(phrases* p, uint32_t count, const char* phrase) {
    if (count > 0) {
        p->add("%u %s", count, phrase);
    }
}

// What was wrong with the file.
void describe_file(const repair& r, phrases* p) {
    const loaded& l = r.file;
    if (r.failure != 0) {
        p->add("%s cannot be read: %s", LIST_NAME, error_text(r.failure).text);
    } else if (!is_list(l)) {
        p->add("%s %s", LIST_NAME,
               l.header == header_kind::OTHER_VERSION ? "was written by another version"
               : l.size == 0                          ? "was empty"
                                                      : "was no list");
    }
    add_if(is_list(l) && !is_closed(l), p, "the list was not closed");
    add_if(l.unreadable > 0, p, "KYT.LST has parts that cannot be read");
    add_if(l.other_order, p, "the list comes from a machine of the other byte order");
    add_if(r.other_card, p, "the list belongs to another card");
    add_if(r.exists && has_wrong_size(l), p, "the list was cut short or made longer");
    add_count(p, is_list(l) ? l.destroyed : 0, "of its records were destroyed");
    add_count(p, r.missing > l.destroyed ? r.missing - l.destroyed : 0, "of its records were missing");
    add_count(p, r.doubles.size, "of its records stood there twice");
}

void describe_folder(const repair& r, phrases* p) {
    const contents& c = r.card;
    if (c.failure != 0) {
        p->add("the recordings folder cannot be read: %s", error_text(c.failure).text);
    }
    if (c.unread_failure != 0) {
        p->add("%u hours of the folder cannot be read: %s", c.unread.size, error_text(c.unread_failure).text);
    }
    if (r.left_out > 0 || c.too_many) {
        p->add("more clips than a list can hold: %u%s stay out of it", r.left_out, c.too_many ? " or more" : "");
    }
}

}  // namespace

void repair_report(const repair& r, int failure) {
    const uint32_t records = r.h->live.size();
    const bool is_new = r.failure == ENOENT;
    phrases found;
    if (!is_new) {
        describe_file(r, &found);
    }
    describe_folder(r, &found);
    if (is_new && failure == 0 && found.empty() && r.done.empty()) {
        log_info("kyt: a new list, with %u clips that are on the card", records);
        return;
    }
    add_if(is_new && found.empty(), &found, "there was no list");
    phrases done = r.done;
    if (failure == 0 && !found.empty()) {
        done.add("%u records now, of them %u from the folder", records, r.added);
    }
    add_count(&done, r.dropped, "dropped for want of a clip");
    if (r.returned > 0) {
        done.add("%u deleted clips are still on the card and back in the list, the first is %u", r.returned,
                 r.first_returned);
    }
    add_if(r.damaged, &done, "marks may be lost");
    if (failure != 0) {
        done.add("no list is in use: %s", error_text(failure).text);
    }
    const bool is_warning = failure != 0 || r.damaged || r.returned > 0 || r.other_card || r.file.other_order;
    const char* const colon = found.empty() || done.empty() ? "" : ": ";
    if (!found.empty() || !done.empty()) {
        (is_warning ? log_warning : log_info)("kyt: %s%s%s", found.text, colon, done.text);
    }
}

}  // namespace kyt
