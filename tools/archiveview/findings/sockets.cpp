// Findings on sockets.
#include <algorithm>
#include <map>
#include <unordered_map>

#include "tools/archiveview/findings/subjects.h"
#include "tools/archiveview/findings/thresholds.h"
#include "tools/archiveview/findings/wording.h"

namespace archiveview {

namespace {

std::string socket_place(const socket_facts& socket) {
    return said("socket/", socket.inode);
}

bool is_lasting(const socket_facts& socket) {
    return socket.in_first_look && socket.in_second_look;
}

// True if the trace shows a process that does not come to its accept call.
bool never_accepts(const archive_facts& facts, int pid) {
    const auto traced = facts.trace.by_pid.find(pid);
    if (!facts.trace.is_present) {
        return false;
    }
    return traced == facts.trace.by_pid.end() ||
           (!traced->second.by_call.contains("accept") && !traced->second.by_call.contains("accept4"));
}

// The kernel's table does not tell the limit of a queue; the counter tells that one has overflowed.
bool is_full(const archive_facts& facts, const socket_facts& socket, bool has_overflowed) {
    const uint64_t waiting = socket.receive_queue;
    if (socket.send_queue > 0) {
        return waiting >= socket.send_queue;
    }
    return waiting > 0 && (has_overflowed || (waiting >= waiting_connections && is_lasting(socket) &&
                                              never_accepts(facts, socket.pid)));
}

symptom queue_symptom(const archive_facts& facts, const socket_facts& socket, uint64_t overflows) {
    symptom found{.pid = socket.pid};
    const std::string name = socket.pid != 0 ? who(facts, socket.pid) : "The server at " + socket.local;
    found.text =
        said(name, " does not accept connections at ", socket.local, ": ", socket.receive_queue, " wait.");
    found.proof.push_back(
        {said(counted(socket.receive_queue, "connection"), " in the queue"), socket_place(socket)});
    if (overflows > 0) {
        found.proof.push_back(
            {said(counted(overflows, "connection attempt"), " found a full queue between the looks"),
             "change/protocols"});
    }
    found.weight = static_cast<double>(socket.receive_queue);
    return found;
}

// The stream of two sockets, if both are on this device, or of one.
struct stream {
    const socket_facts* writer = nullptr;
    const socket_facts* reader = nullptr;  // null if it is elsewhere
};

using sockets_by_ends = std::unordered_map<std::string, const socket_facts*>;

std::string ends_key(const std::string& local, const std::string& remote) {
    return local + ' ' + remote;
}

sockets_by_ends connected_sockets(const archive_facts& facts) {
    sockets_by_ends found;
    for (const socket_facts& socket : facts.sockets.sockets) {
        if (socket.protocol.starts_with("tcp")) {
            found.emplace(ends_key(socket.local, socket.remote), &socket);
        }
    }
    return found;
}

std::unordered_map<std::string, const conversation*> conversations_by_ends(const archive_facts& facts) {
    std::unordered_map<std::string, const conversation*> found;
    for (const conversation& one : facts.capture.conversations) {
        if (one.protocol == "tcp") {
            found.emplace(ends_key(one.a, one.b), &one);
            found.emplace(ends_key(one.b, one.a), &one);
        }
    }
    return found;
}

// Nothing moves: the reader's queue is long, or the capture has no more than probes.
bool is_still(const archive_facts& facts, const stream& one, const conversation* seen) {
    const bool is_watched =
        facts.capture.is_present && !facts.capture.is_full && facts.capture.damage.empty();
    if (is_watched) {
        return !seen || seen->bytes < stuck_bytes;
    }
    return seen ? seen->zero_windows > 0 && seen->bytes < stuck_bytes
                : one.reader && one.reader->receive_queue >= unread_queue_bytes;
}

symptom stream_symptom(const archive_facts& facts, const stream& one, const conversation* seen) {
    const socket_facts& writer = *one.writer;
    symptom found;
    // The reader is to blame, if it is here to be examined.
    found.pid = one.reader && one.reader->pid != 0 ? one.reader->pid : writer.pid;
    found.text = found.pid != writer.pid || writer.pid == 0
                     ? said(found.pid != 0 ? who(facts, found.pid) : "The peer " + writer.remote,
                            " does not read: ", counted(writer.send_queue, "byte"), " wait at the other end.")
                     : said(writer.remote, " does not read what ", who(facts, writer.pid),
                            " sends: ", counted(writer.send_queue, "byte"), " wait.");
    found.proof.push_back(
        {said(counted(writer.send_queue, "byte"), " in the send queue of ",
              writer.pid != 0 ? who(facts, writer.pid) : writer.local, " to ", writer.remote),
         socket_place(writer)});
    if (one.reader) {
        found.proof.push_back({said(counted(one.reader->receive_queue, "byte"), " in the receive queue"),
                               socket_place(*one.reader)});
    }
    if (seen && seen->zero_windows > 0) {
        found.proof.push_back({said(counted(seen->zero_windows, "packet"), " announced a window of zero"),
                               said("conversation/", seen - facts.capture.conversations.data())});
    }
    found.weight = static_cast<double>(writer.send_queue);
    return found;
}

}  // namespace

symptoms find_listen_queue_full(const archive_facts& facts) {
    const uint64_t overflows = growth_of(facts, &look::protocols, "TcpExt.ListenOverflows");
    const own_connections own(facts);
    symptoms all;
    for (const socket_facts& socket : facts.sockets.sockets) {
        if (socket.state == "LISTEN" && socket.protocol.starts_with("tcp") && !own.has(socket) &&
            is_full(facts, socket, overflows > 0)) {
            all.push_back(queue_symptom(facts, socket, overflows));
        }
    }
    return all;
}

symptoms find_close_wait(const archive_facts& facts) {
    std::map<int, unsigned> lasting;
    for (const socket_facts& socket : facts.sockets.sockets) {
        if (socket.state == "CLOSE_WAIT" && is_lasting(socket) && socket.pid != 0 &&
            !is_own(facts, socket.pid)) {
            lasting[socket.pid]++;
        }
    }
    symptoms all;
    for (const auto& [pid, count] : lasting) {
        symptom found{.pid = pid};
        found.level = count >= close_wait_warning ? severity::warning : severity::note;
        found.text = said(who(facts, pid), " does not close ", counted(count, "connection"),
                          " that the peer has closed.");
        found.proof.push_back(
            {said(counted(count, "socket"), " in CLOSE_WAIT at both looks"), process_place(pid)});
        found.weight = count;
        all.push_back(std::move(found));
    }
    return all;
}

symptoms find_send_queue_stuck(const archive_facts& facts) {
    const sockets_by_ends sockets = connected_sockets(facts);
    const auto conversations = conversations_by_ends(facts);
    const own_connections own(facts);
    symptoms all;
    for (const socket_facts& socket : facts.sockets.sockets) {
        const bool is_stream =
            socket.protocol.starts_with("tcp") && socket.state != "LISTEN" && socket.state != "SYN_SENT";
        if (!is_stream || !is_lasting(socket) || socket.send_queue < stuck_queue_bytes || own.has(socket)) {
            continue;
        }
        const auto reader = sockets.find(ends_key(socket.remote, socket.local));
        const auto seen = conversations.find(ends_key(socket.local, socket.remote));
        const stream one = {&socket, reader == sockets.end() ? nullptr : reader->second};
        const conversation* talk = seen == conversations.end() ? nullptr : seen->second;
        if (is_still(facts, one, talk)) {
            all.push_back(stream_symptom(facts, one, talk));
        }
    }
    return all;
}

}  // namespace archiveview
