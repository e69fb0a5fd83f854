#include "tools/archiveview/facts/capture_questions.h"

#include <arpa/nameser.h>

#include <algorithm>

#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

// "192.0.2.1:53" without its port, "[2001:db8::1]:53" without brackets as well.
std::string without_port(const std::string& end) {
    const std::string address = end.substr(0, end.rfind(':'));
    return address.starts_with('[') ? address.substr(1, address.size() - 2) : address;
}

// The names that a message asks for. The C library follows no pointer in a circle.
std::vector<std::string> names_in(ns_msg* message) {
    std::vector<std::string> names;
    ns_rr question;
    for (int i = 0; i < ns_msg_count(*message, ns_s_qd); i++) {
        if (ns_parserr(message, ns_s_qd, i, &question) != 0) {
            break;
        }
        names.emplace_back(ns_rr_name(question));
    }
    return names;
}

}  // namespace

asked_name* question_list::find(question_map* all, const std::string& name, const std::string& server) {
    const auto found = all->find({name, server});
    if (found != all->end()) {
        return &found->second;
    }
    if (all->size() >= question_limit) {
        return nullptr;
    }
    asked_name& added = (*all)[{name, server}];
    added.name = name;
    added.server = server;
    return &added;
}

void question_list::add_name(const frame_facts& frame) {
    ns_msg message;
    if (ns_initparse(frame.dns.data(), static_cast<int>(frame.dns.size()), &message) != 0) {
        return;  // something else on the port of name servers, or a message that was cut
    }
    const std::string number = " " + std::to_string(ns_msg_id(message));
    if (ns_msg_getflag(message, ns_f_qr) != 0) {
        add_answer(frame, number);
        return;
    }
    std::vector<std::string> asked_here;
    for (const std::string& name : names_in(&message)) {
        asked_name* asked = find(&names_, name, without_port(frame.ends.b));
        if (asked) {
            asked->questions++;
            asked->asker = asked->asker.empty() ? frame.ends.a : asked->asker;
            asked_here.push_back(name);
        }
    }
    pending_[frame.ends.a + " " + frame.ends.b + number] = std::move(asked_here);
}

void question_list::add_answer(const frame_facts& frame, const std::string& number) {
    const auto found = pending_.find(frame.ends.b + " " + frame.ends.a + number);
    if (found == pending_.end()) {
        return;
    }
    for (const std::string& name : found->second) {
        if (asked_name* asked = find(&names_, name, without_port(frame.ends.a))) {
            asked->answers++;
        }
    }
    pending_.erase(found);
}

void question_list::add_neighbour(const neighbour_message& message) {
    if (message.is_question) {
        if (asked_name* asked = find(&neighbours_, message.asked, message.asker)) {
            asked->questions++;
        }
        return;
    }
    const auto found = neighbours_.find({message.asked, message.asker});
    if (found != neighbours_.end()) {
        found->second.answers++;
    }
}

std::vector<asked_name> question_list::sorted(question_map&& all) {
    std::vector<asked_name> list;
    for (auto& [key, asked] : all) {
        list.push_back(std::move(asked));
    }
    std::ranges::stable_sort(list, std::ranges::greater(), [](const asked_name& asked) {
        return asked.questions - std::min(asked.questions, asked.answers);
    });
    return list;
}

std::vector<asked_name> question_list::take_names() {
    return sorted(std::move(names_));
}

std::vector<asked_name> question_list::take_neighbours() {
    return sorted(std::move(neighbours_));
}

}  // namespace archiveview
