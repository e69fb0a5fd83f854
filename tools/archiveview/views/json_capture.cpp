#include "tools/archiveview/views/json_parts.h"

namespace archiveview {
namespace {

void add_conversation(json_fields* out, const conversation& talk) {
    out->text("protocol", talk.protocol);
    out->text("a", talk.a);
    out->text("b", talk.b);
    out->number("packets", talk.packets);
    out->number("bytes", talk.bytes);
    out->id("pid", talk.pid);
    out->text("process", talk.process);
    out->id("peer_pid", talk.peer_pid);
    out->text("peer_process", talk.peer_process);
    out->number("first_seconds", talk.first_seconds);
    out->number("last_seconds", talk.last_seconds);
    out->number("retransmissions", talk.retransmissions);
    out->number("resets", talk.resets);
    out->number("zero_windows", talk.zero_windows);
    out->number("connects", talk.connects);
    out->number("accepts", talk.accepts);
    out->number("refusals", talk.refusals);
}

void add_question(json_fields* out, const asked_name& asked) {
    out->text("name", asked.name);
    out->text("server", asked.server);
    out->number("questions", asked.questions);
    out->number("answers", asked.answers);
    out->text("asker", asked.asker);
    out->id("pid", asked.pid);
    out->text("process", asked.process);
}

}  // namespace

void json_capture(json_fields* out, const char* name, const json_input& in) {
    out->object(name, [&capture = in.facts.capture](json_fields* one) {
        one->flag("present", capture.is_present);
        one->text("damage", capture.damage);
        one->number("packets", capture.packets);
        one->number("packets_left_out", capture.left_out);
        one->number("bytes", capture.bytes);
        one->flag("true_lengths", capture.has_true_lengths);
        one->flag("full", capture.is_full);
        one->number("seconds", capture.seconds, capture.is_present);
        one->map("packets_by_protocol", capture.packets_by_protocol);
        one->objects("conversations", capture.conversations, add_conversation);
        one->objects("dns", capture.dns, add_question);
        one->objects("arp", capture.arp, add_question);
    });
}

}  // namespace archiveview
