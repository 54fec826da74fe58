#include <cerrno>

#include "errors.h"
#include "repair.h"
#include "vesk_util.h"

namespace kyt {
namespace {

void describe_file(repair* r) {
    const loaded& l = r->file;
    phrases* const found = &r->found;
    if (r->failure == ENOENT) {
        if (!r->done.empty()) {
            found->add("there was no list");
        }
        return;
    }
    if (r->failure != 0) {
        found->add("%s cannot be read: %s", LIST_NAME, error_text(r->failure).text);
    } else if (l.header == header_kind::OTHER_VERSION) {
        found->add("%s was written by another version", LIST_NAME);
    } else if (l.size == 0) {
        found->add("%s was empty", LIST_NAME);
    } else if (l.header == header_kind::DAMAGED) {
        found->add("%s was no list", LIST_NAME);
    } else if (!is_closed(l)) {
        found->add("the list was not closed");
    }
    if (l.unreadable > 0) {
        found->add("%s has parts that cannot be read", LIST_NAME);
    }
    if (l.other_order) {
        found->add("the list comes from a machine of the other byte order");
    }
    if (r->other_card) {
        found->add("the list belongs to another card");
    }
    if (r->exists && has_wrong_size(l)) {
        found->add("the list was cut short or made longer");
    }
    if (l.destroyed > 0 && is_list(l)) {
        found->add("%u of its records were destroyed", l.destroyed);
    }
    if (r->missing > l.destroyed) {
        found->add("%u of its records were missing", r->missing - l.destroyed);
    }
    if (r->doubles > 0) {
        found->add("%u of its records stood there twice", r->doubles);
    }
}

void describe_folder(repair* r) {
    const contents& c = r->card;
    if (c.failure != 0) {
        r->found.add("the recordings folder cannot be read: %s", error_text(c.failure).text);
    }
    if (c.unread_failure != 0) {
        r->found.add("%u hours of the folder cannot be read: %s", c.unread.size, error_text(c.unread_failure).text);
    }
    if (r->left_out > 0 || c.too_many) {
        r->found.add("more clips than a list can hold: %u%s stay out of it", r->left_out, c.too_many ? " or more" : "");
    }
}

}  // namespace

void repair_report(repair* r, int failure) {
    const uint32_t records = r->h->live.size();
    describe_file(r);
    describe_folder(r);
    if (r->failure == ENOENT && failure == 0 && r->found.empty() && r->done.empty()) {
        log_info("kyt: a new list, with %u clips that are on the card", records);
        return;
    }
    if (failure == 0 && !r->found.empty()) {
        r->done.add("%u records now, of them %u from the folder", records, r->added);
    }
    if (r->dropped > 0) {
        r->done.add("%u dropped for want of a clip", r->dropped);
    }
    if (r->returned > 0) {
        r->done.add("%u deleted clips are still on the card and back in the list, the first is %u", r->returned,
                    r->first_returned);
    }
    if (r->damaged) {
        r->done.add("marks may be lost");
    }
    if (failure != 0) {
        r->done.add("no list is in use: %s", error_text(failure).text);
    }
    if (r->found.empty() && r->done.empty()) {
        return;
    }
    const char* const between = r->found.empty() || r->done.empty() ? "" : ": ";
    if (failure != 0 || r->damaged || r->returned > 0 || r->other_card || r->file.other_order) {
        log_warning("kyt: %s%s%s", r->found.text, between, r->done.text);
    } else {
        log_info("kyt: %s%s%s", r->found.text, between, r->done.text);
    }
}

}  // namespace kyt
