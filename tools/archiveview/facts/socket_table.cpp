// The tables of sockets in /proc/net.
#include <algorithm>
#include <array>
#include <optional>

#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/facts/socket_address.h"
#include "tools/archiveview/facts/sockets.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

constexpr size_t word_limit = 16;

using line_words = std::array<std::string_view, word_limit>;

// A row: what it says, and what tells its socket from others if it has no inode.
struct table_row {
    socket_facts socket;
    std::string identity;
};

// The table that is being parsed.
struct socket_table {
    std::string_view protocol;
    bool is_big_endian;
    line_words headings;  // of its first line
};

line_words words_of(std::string_view line) {
    line_words words;
    for (std::string_view& word : words) {
        word = take_word(&line);
    }
    return words;
}

// The kernel's numbers of states, from 1 on; NEW_SYN_RECV is shown as what it is for a user.
constexpr std::string_view tcp_states[] = {"ESTABLISHED", "SYN_SENT",  "SYN_RECV", "FIN_WAIT1",
                                           "FIN_WAIT2",   "TIME_WAIT", "CLOSE",    "CLOSE_WAIT",
                                           "LAST_ACK",    "LISTEN",    "CLOSING",  "SYN_RECV"};
constexpr std::string_view unix_states[] = {"", "CONNECTING", "CONNECTED", "DISCONNECTING"};

template <size_t count>
std::string_view state_of(const std::string_view (&names)[count], std::string_view word) {
    const auto number = number_of<uint8_t>(word, 16);
    return number && *number >= 1 && *number <= count ? names[*number - 1] : std::string_view();
}

uint64_t number_or_0(std::string_view word, int base = 10) {
    return number_of(word, base).value_or(0);
}

// "sl local remote state tx:rx timer:when retransmits uid timeout inode references pointer drops"
std::optional<table_row> parse_inet(const socket_table& table, std::string_view line) {
    enum { local_at = 1, remote_at, state_at, queues_at, inode_at = 9, drops_at = 12 };
    const line_words words = words_of(line);
    const auto local = socket_address(words[local_at], table.is_big_endian);
    const auto remote = socket_address(words[remote_at], table.is_big_endian);
    const auto inode = number_of(words[inode_at]);
    if (!local || !remote || !inode) {
        return std::nullopt;
    }
    const bool is_tcp = table.protocol.starts_with("tcp");
    const std::string_view state = state_of(tcp_states, words[state_at]);
    const size_t colon = std::min(words[queues_at].find(':'), words[queues_at].size());
    table_row row;
    row.identity = *local + " " + *remote;
    row.socket.local = *local;
    row.socket.remote = *remote;
    row.socket.state = is_tcp || state == tcp_states[0] ? state : std::string_view();
    row.socket.inode = *inode;
    row.socket.send_queue = number_or_0(words[queues_at].substr(0, colon), 16);
    row.socket.receive_queue =
        number_or_0(words[queues_at].substr(std::min(colon + 1, words[queues_at].size())), 16);
    row.socket.drops = is_tcp ? 0 : number_or_0(words[drops_at]);
    return row;
}

// "Num: RefCount Protocol Flags Type St Inode Path", where the path may hold blanks or be missing.
std::optional<table_row> parse_unix(const socket_table& /*table*/, std::string_view line) {
    constexpr uint64_t listens = 0x10000;
    const std::string_view number = take_word(&line);
    (void)take_word(&line);
    (void)take_word(&line);
    const uint64_t flags = number_or_0(take_word(&line), 16);
    (void)take_word(&line);
    const std::string_view state = take_word(&line);
    const auto inode = number_of(take_word(&line));
    if (!number.ends_with(':') || !inode) {
        return std::nullopt;
    }
    table_row row;
    row.identity = number;
    row.socket.local = line.substr(line.empty() ? 0 : 1, name_limit);
    row.socket.state = (flags & listens) != 0 ? "LISTEN" : state_of(unix_states, state);
    row.socket.inode = *inode;
    return row;
}

// The word of a row below a heading. Empty if there is none: old kernels have fewer columns.
std::string_view below(const socket_table& table, const line_words& words, std::string_view heading) {
    const auto at = std::ranges::find(table.headings, heading);
    return at == table.headings.end() ? std::string_view()
                                      : words[static_cast<size_t>(at - table.headings.begin())];
}

// A row of a table with headings for all columns; nothing if it has no inode although the table should.
std::optional<table_row> parse_columns(const socket_table& table, const line_words& words) {
    const std::string_view inode = below(table, words, "Inode");
    const bool has_inodes = std::ranges::find(table.headings, "Inode") != table.headings.end();
    if (words[0].empty() || has_inodes != number_of(inode).has_value()) {
        return std::nullopt;
    }
    table_row row;
    row.identity = words[0];
    row.socket.inode = number_or_0(inode);
    row.socket.send_queue = number_or_0(below(table, words, "Wmem"));
    row.socket.receive_queue = number_or_0(below(table, words, "Rmem"));
    row.socket.drops = number_or_0(below(table, words, "Drops"));
    return row;
}

std::optional<table_row> parse_packet(const socket_table& table, std::string_view line) {
    const line_words words = words_of(line);
    std::optional<table_row> row = parse_columns(table, words);
    if (row) {
        const std::string interface(below(table, words, "Iface").substr(0, name_limit));
        row->socket.local = "0x" + std::string(below(table, words, "Proto").substr(0, name_limit)) +
                            (interface == "0" ? " on all interfaces" : " on interface " + interface);
    }
    return row;
}

std::string netlink_name(std::string_view number) {
    struct netlink_protocol {
        std::string_view number, name;
    };
    constexpr netlink_protocol protocols[] = {
        {"0", "route"},      {"2", "usersock"},   {"3", "firewall"}, {"4", "sock_diag"}, {"5", "nflog"},
        {"6", "xfrm"},       {"7", "selinux"},    {"8", "iscsi"},    {"9", "audit"},     {"10", "fib_lookup"},
        {"11", "connector"}, {"12", "netfilter"}, {"15", "uevent"},  {"16", "generic"},  {"18", "scsi"},
        {"20", "rdma"},      {"21", "crypto"},
    };
    const auto known = std::ranges::find(protocols, number, &netlink_protocol::number);
    return std::string(known == std::end(protocols) ? number.substr(0, name_limit) : known->name);
}

std::optional<table_row> parse_netlink(const socket_table& table, std::string_view line) {
    const line_words words = words_of(line);
    std::optional<table_row> row = parse_columns(table, words);
    if (row) {
        row->socket.local = netlink_name(below(table, words, "Eth")) + ":" +
                            std::string(below(table, words, "Pid").substr(0, name_limit));
    }
    return row;
}

struct row_parser {
    std::string_view protocol;
    std::optional<table_row> (*parse)(const socket_table& table, std::string_view line);
};

constexpr row_parser parsers[] = {
    {"tcp", parse_inet},  {"tcp6", parse_inet},     {"udp", parse_inet},
    {"udp6", parse_inet}, {"raw", parse_inet},      {"raw6", parse_inet},
    {"unix", parse_unix}, {"packet", parse_packet}, {"netlink", parse_netlink},
};

// Takes a line. A cut table ends within a line, whose last word may be cut, too.
std::string_view take_whole_line(std::string_view* text) {
    const bool is_whole = text->find('\n') != text->npos;
    std::string_view line = take_line(text);
    while (!is_whole && !line.empty() && !is_ascii_blank(line.back())) {
        line.remove_suffix(1);
    }
    return line;
}

void keep(socket_list* list, std::string_view protocol, int look, table_row row) {
    socket_facts* socket = &row.socket;
    const std::string name =
        socket->inode != 0 ? std::to_string(socket->inode) : "0 " + row.identity.substr(0, name_limit);
    const auto [at, is_new] =
        list->by_identity.try_emplace(std::string(protocol) + " " + name, list->sockets.size());
    if (is_new) {
        list->sockets.emplace_back();
    }
    socket_facts* kept = &list->sockets[at->second];
    socket->protocol = protocol;
    socket->in_first_look = kept->in_first_look || look == 0;
    socket->in_second_look = kept->in_second_look || look == 1;
    if (look == 1 || !kept->in_second_look) {
        *kept = std::move(*socket);
    } else {
        kept->in_first_look = true;
    }
}

}  // namespace

void sockets_add_table(socket_list* list, std::string_view protocol, int look, std::string_view text,
                       bool is_big_endian) {
    const auto parser = std::ranges::find(parsers, protocol, &row_parser::protocol);
    if (parser == std::end(parsers) || text.empty()) {
        return;
    }
    const socket_table table = {protocol, is_big_endian, words_of(take_line(&text))};
    while (!text.empty() && list->sockets.size() < socket_limit) {
        if (auto row = parser->parse(table, take_whole_line(&text))) {
            keep(list, protocol, look, std::move(*row));
        }
    }
}

}  // namespace archiveview
