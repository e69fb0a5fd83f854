#include "tools/archiveview/views/json_parts.h"

namespace archiveview {

// The kernel uses the queue of a listening socket for its connections.
void json_sockets(json_fields* out, const char* name, const json_input& in) {
    const process_list& processes = in.facts.processes;
    out->objects(name, in.facts.sockets.sockets, [&](json_fields* one, const socket_facts& socket) {
        const process_facts* owner = processes.find(socket.pid);
        const bool is_listening = socket.state == "LISTEN" && socket.protocol.starts_with("tcp");
        one->text("protocol", socket.protocol);
        one->text("local", socket.local);
        one->text("remote", socket.remote);
        one->text("state", socket.state);
        one->id("inode", socket.inode);
        one->id("pid", socket.pid);
        one->text("process", owner == nullptr ? "" : owner->name);
        one->flag("lacks_owner", sockets_lacks_owner(socket));
        one->number("send_queue_bytes", socket.send_queue, !is_listening);
        one->number("receive_queue_bytes", socket.receive_queue, !is_listening);
        one->number("waiting_connections", socket.receive_queue, is_listening);
        one->number("drops", socket.drops);
        one->flag("in_first_look", socket.in_first_look);
        one->flag("in_second_look", socket.in_second_look);
    });
}

}  // namespace archiveview
