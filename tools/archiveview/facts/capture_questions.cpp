#include "tools/archiveview/facts/capture_questions.h"

#include <tins/dns.h>
#include <tins/exceptions.h>

#include <algorithm>

#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

// "192.0.2.1:53" without its port, "[2001:db8::1]:53" without brackets as well.
std::string without_port(const std::string& end) {
    const std::string address = end.substr(0, end.rfind(':'));
    return address.starts_with('[') ? address.substr(1, address.size() - 2) : address;
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

void question_list::add_name(const frame_facts& frame) try {
    const Tins::DNS message(frame.dns.data(), static_cast<uint32_t>(frame.dns.size()));
    const std::string number = " " + std::to_string(message.id());
    if (message.type() == Tins::DNS::RESPONSE) {
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
        return;
    }
    std::vector<std::string> asked_here;
    for (const Tins::DNS::query& query : message.queries()) {
        asked_name* asked = find(&names_, query.dname(), without_port(frame.ends.b));
        if (asked) {
            asked->questions++;
            asked->asker = asked->asker.empty() ? frame.ends.a : asked->asker;
            asked_here.push_back(query.dname());
        }
    }
    pending_[frame.ends.a + " " + frame.ends.b + number] = std::move(asked_here);
} catch (const Tins::exception_base&) {
    // Something else on the port of name servers, or a message that was cut.
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
