// Findings on questions that nobody answers: names and neighbours.
#include <algorithm>
#include <map>

#include "tools/archiveview/findings/subjects.h"
#include "tools/archiveview/findings/thresholds.h"
#include "tools/archiveview/findings/wording.h"

namespace archiveview {

namespace {

// Names that are asked for by multicast: nobody answers if nobody has the name.
bool is_multicast_question(const asked_name& asked) {
    return asked.server.starts_with("224.") || asked.server.starts_with("[ff") ||
           asked.server.starts_with("ff") || port_of(asked.server) == "5353" ||
           asked.name.ends_with(".local");
}

struct name_server {
    uint64_t questions = 0;
    uint64_t answers = 0;
    int pid = 0;
    std::vector<std::string> names;
};

// The process that has a socket to the server's port, or one whose trace shows such a socket.
int asking_process(const archive_facts& facts, const std::string& server) {
    for (const socket_facts& socket : facts.sockets.sockets) {
        if (socket.pid != 0 && socket.protocol.starts_with("udp") &&
            address_of(socket.remote) == address_of(server) && port_of(socket.remote) == "53") {
            return socket.pid;
        }
    }
    const std::string target = said("> ", address_of(server), ":53");
    for (const auto& [pid, traced] : facts.trace.by_pid) {
        for (const auto& [number, one] : traced.descriptors) {
            if (one.text.find(target) != std::string::npos) {
                return pid;
            }
        }
    }
    return 0;
}

// What asks to see whether an address is free, or tells its own, expects no answer.
bool expects_answer(const asked_name& asked) {
    return asked.server != "0.0.0.0" && asked.server != "::" && asked.server != asked.name;
}

bool is_gateway(const archive_facts& facts, const std::string& address) {
    return std::ranges::any_of(facts.device.routes, [&](const std::string& line) {
        const size_t at = line.find(' ' + address);
        return at != std::string::npos && line.starts_with("default");
    });
}

}  // namespace

symptoms find_dns_unanswered(const archive_facts& facts) {
    std::map<std::string, name_server> servers;
    for (const asked_name& asked : facts.capture.dns) {
        if (is_multicast_question(asked)) {
            continue;
        }
        name_server& server = servers[asked.server];
        server.questions += asked.questions;
        server.answers += std::min(asked.answers, asked.questions);
        server.pid = asked.pid != 0 ? asked.pid : server.pid;
        if (asked.answers == 0) {
            server.names.push_back(asked.name);
        }
    }
    symptoms all;
    for (auto& [address, server] : servers) {
        if (server.questions - server.answers < unanswered_questions) {
            continue;
        }
        const bool is_dead = server.answers == 0;
        server.pid = server.pid != 0 ? server.pid : asking_process(facts, address);
        symptom found{.pid = server.pid, .level = is_dead ? severity::warning : severity::note};
        found.text =
            said("The name server ", address, is_dead ? " does not answer" : " leaves questions unanswered",
                 server.pid != 0 ? " " + who(facts, server.pid) : std::string(), ".");
        found.proof.push_back(
            {said(counted(server.questions, "question"), ", ", counted(server.answers, "answer")), ""});
        for (const std::string& name : server.names) {
            found.proof.push_back({"no answer for " + name, ""});
        }
        found.weight = static_cast<double>(server.questions);
        all.push_back(std::move(found));
    }
    return all;
}

symptoms find_arp_unanswered(const archive_facts& facts) {
    const device_addresses device(facts);
    symptoms all;
    for (const asked_name& asked : facts.capture.arp) {
        // Others on the network ask for what they like.
        if (asked.questions < unanswered_arp || asked.answers > 0 || !expects_answer(asked) ||
            !device.has(asked.server)) {
            continue;
        }
        const bool is_router = is_gateway(facts, asked.name);
        symptom found{.pid = asked.pid, .level = is_router ? severity::warning : severity::note};
        found.text =
            said(is_router ? "The default gateway " : "The neighbour ", asked.name, " does not answer.");
        found.proof.push_back(
            {said(counted(asked.questions, "question"), " of ", asked.server, ", no answer"), ""});
        found.weight = static_cast<double>(asked.questions);
        all.push_back(std::move(found));
    }
    return all;
}

}  // namespace archiveview
