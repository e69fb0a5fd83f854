#include "tools/archiveview/facts/capture_frame.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <tins/tins.h>

#include <algorithm>
#include <functional>
#include <string_view>

namespace archiveview {

namespace {

constexpr uint16_t dns_port = 53;
constexpr uint8_t protocol_tcp = 6, protocol_udp = 17;
constexpr uint32_t ipv4_header = 20, ipv6_header = 40;  // without options
constexpr size_t ethernet_bytes = 14, tag_bytes = 4, mac_bytes = 6;
constexpr uint16_t first_ethertype = 0x600;  // below, the field is a length
constexpr std::string_view fragment_name = "fragment";

using bytes_view = std::span<const uint8_t>;

uint16_t number16(bytes_view bytes, size_t at) {
    return at + 2 <= bytes.size() ? static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]) : 0;
}

bool is_tag(uint16_t ethertype) {
    return ethertype == 0x8100 || ethertype == 0x88a8 || ethertype == 0x9100;
}

// The ethertype after all VLAN tags.
uint16_t ethertype_of(bytes_view frame) {
    size_t at = ethernet_bytes - 2;
    while (is_tag(number16(frame, at))) {
        at += tag_bytes;
    }
    return number16(frame, at);
}

std::string mac_text(bytes_view mac) {
    std::string text;
    for (const uint8_t byte : mac) {
        char digits[4];
        snprintf(digits, sizeof digits, "%02x:", byte);
        text += digits;
    }
    return text.substr(0, text.empty() ? 0 : text.size() - 1);
}

// What is known of every frame.
void name_by_ethertype(bytes_view frame, frame_facts* facts) {
    const uint16_t type = ethertype_of(frame);
    char name[8];
    snprintf(name, sizeof name, "0x%04x", type);
    facts->protocol = frame.size() < ethernet_bytes ? "short" : type < first_ethertype ? "llc" : name;
    if (frame.size() >= 2 * mac_bytes) {
        facts->ends = {mac_text(frame.subspan(mac_bytes, mac_bytes)), mac_text(frame.first(mac_bytes))};
    }
}

std::string address_text(int family, const uint8_t* address) {
    char text[INET6_ADDRSTRLEN] = "";
    (void)inet_ntop(family, address, text, sizeof text);
    return text;
}

std::string with_port(const std::string& address, uint16_t port) {
    const bool is_6 = address.find(':') != std::string::npos;
    return (is_6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

// The network layer of a frame: an IPv4 or IPv6 packet.
struct network_layer {
    bytes_view packet;  // its recorded bytes, without what Ethernet adds to short frames
    size_t header = 0;  // bytes
    uint32_t length = 0;
    uint8_t protocol = 0;
    std::string from, to;
    bool is_6 = false;
    bool is_fragment = false;
    fragment_table::fragment part;
    uint32_t id = 0;

    bytes_view body() const { return packet.subspan(std::min(header, packet.size())); }
    uint32_t body_length() const { return length > header ? length - static_cast<uint32_t>(header) : 0; }
};

network_layer layer_of(const Tins::IP& ip, bytes_view packet) {
    network_layer layer;
    layer.header = (packet[0] & size_t{15}) * 4;
    // The kernel's own large packets have no length.
    layer.length = ip.tot_len() == 0 ? static_cast<uint32_t>(packet.size()) : ip.tot_len();
    layer.packet = packet.first(std::min<size_t>(packet.size(), layer.length));
    layer.protocol = ip.protocol();
    layer.from = address_text(AF_INET, packet.data() + 12);
    layer.to = address_text(AF_INET, packet.data() + 16);
    layer.is_fragment = ip.is_fragmented();
    layer.id = ip.id();
    layer.part = {uint32_t{ip.fragment_offset()} * 8, layer.body_length(),
                  (ip.flags() & Tins::IP::MORE_FRAGMENTS) == 0};
    return layer;
}

network_layer layer_of(const Tins::IPv6& ip, bytes_view packet) {
    network_layer layer;
    layer.is_6 = true;
    layer.header = std::min<size_t>(ip.header_size(), packet.size());
    layer.length =
        ip.payload_length() == 0 ? static_cast<uint32_t>(packet.size()) : ipv6_header + ip.payload_length();
    layer.packet = packet.first(std::min<size_t>(packet.size(), layer.length));
    layer.protocol = ip.next_header();
    layer.from = address_text(AF_INET6, packet.data() + 8);
    layer.to = address_text(AF_INET6, packet.data() + 24);
    size_t at = ipv6_header;
    for (const auto& header : ip.headers()) {
        if (at + 8 > packet.size()) {
            break;
        }
        if (header.option() == Tins::IPv6::FRAGMENT) {
            const uint16_t where = number16(packet, at + 2);
            layer.part = {where & ~uint32_t{7}, layer.body_length(), (where & 1) == 0};
            layer.is_fragment = layer.part.offset > 0 || !layer.part.is_last;
            layer.id = uint32_t{number16(packet, at + 4)} << 16 | number16(packet, at + 6);
        }
        layer.protocol = packet[at];
        at += header.data_size() + 2;
    }
    return layer;
}

uint64_t joined(uint64_t hash, bytes_view bytes) {
    const auto* text = static_cast<const char*>(static_cast<const void*>(bytes.data()));
    return (hash << 7 | hash >> 57) ^ std::hash<std::string_view>()({text, bytes.size()});
}

// A hash of the packet without what routers and network cards change: hop count, checksums.
uint64_t view_of(const network_layer& layer) {
    const bytes_view packet = layer.packet;
    const size_t hops = layer.is_6 ? 7 : 8;
    const size_t after_hops = layer.is_6 ? 8 : 12;
    const size_t checksum = layer.header + (layer.protocol == protocol_tcp ? 16 : 6);
    if (packet.size() < after_hops) {
        return 0;
    }
    uint64_t hash = joined(1, packet.first(hops));
    if (layer.protocol == protocol_tcp || layer.protocol == protocol_udp) {
        const size_t end = std::max(after_hops, std::min(checksum, packet.size()));
        hash = joined(hash, packet.subspan(after_hops, end - after_hops));
        return joined(hash, packet.subspan(std::min(end + 2, packet.size())));
    }
    return joined(hash, packet.subspan(after_hops));
}

void set_ports(const network_layer& layer, uint16_t from, uint16_t to, frame_facts* facts) {
    facts->ends = {with_port(layer.from, from), with_port(layer.to, to)};
}

void add_tcp(const Tins::TCP& tcp, const network_layer& layer, frame_facts* facts) {
    facts->protocol = "tcp";
    set_ports(layer, tcp.sport(), tcp.dport(), facts);
    const auto has = [&tcp](Tins::TCP::Flags flag) { return tcp.get_flag(flag) != 0; };
    const uint32_t header = tcp.data_offset() * 4u;
    const uint32_t length = layer.body_length();
    facts->tcp = {tcp.seq(),           tcp.ack_seq(),       length > header ? length - header : 0,
                  tcp.window(),        has(Tins::TCP::SYN), has(Tins::TCP::ACK),
                  has(Tins::TCP::FIN), has(Tins::TCP::RST)};
}

void add_udp(const Tins::UDP& udp, const network_layer& layer, frame_facts* facts) {
    facts->protocol = "udp";
    set_ports(layer, udp.sport(), udp.dport(), facts);
    const auto* data = udp.find_pdu<Tins::RawPDU>();
    if (data && (udp.sport() == dns_port || udp.dport() == dns_port)) {
        facts->dns = data->payload();
    }
}

// "Destination unreachable" holds the head of the packet that could not be delivered.
void add_refused(const Tins::ICMP& icmp, bytes_view body, frame_facts* facts) {
    constexpr size_t icmp_header = 8;
    if (icmp.type() != Tins::ICMP::DEST_UNREACHABLE || body.size() < icmp_header + ipv4_header) {
        return;
    }
    const bytes_view inner = body.subspan(icmp_header);
    const size_t header = (inner[0] & size_t{15}) * 4;
    if (inner[0] >> 4 != 4 || inner[9] != protocol_tcp || inner.size() < header + 4) {
        return;
    }
    facts->refused = {with_port(address_text(AF_INET, inner.data() + 12), number16(inner, header)),
                      with_port(address_text(AF_INET, inner.data() + 16), number16(inner, header + 2))};
}

void add_neighbour(const Tins::ICMPv6& icmp, const network_layer& layer, frame_facts* facts) {
    const bool is_question = icmp.type() == Tins::ICMPv6::NEIGHBOUR_SOLICIT;
    if (!is_question && icmp.type() != Tins::ICMPv6::NEIGHBOUR_ADVERT) {
        return;
    }
    // A host that asks from no address asks whether its own is free.
    if (is_question && layer.from == "::") {
        return;
    }
    facts->neighbour = {is_question, icmp.target_addr().to_string(), is_question ? layer.from : layer.to};
}

void add_transport(const Tins::PDU* pdu, const network_layer& layer, frame_facts* facts) {
    facts->protocol = std::to_string(layer.protocol);
    facts->ends = {layer.from, layer.to};
    if (!pdu) {
        return;
    }
    if (const auto* tcp = Tins::tins_cast<const Tins::TCP*>(pdu)) {
        add_tcp(*tcp, layer, facts);
    } else if (const auto* udp = Tins::tins_cast<const Tins::UDP*>(pdu)) {
        add_udp(*udp, layer, facts);
    } else if (const auto* icmp = Tins::tins_cast<const Tins::ICMP*>(pdu)) {
        facts->protocol = "icmp";
        add_refused(*icmp, layer.body(), facts);
    } else if (const auto* icmp6 = Tins::tins_cast<const Tins::ICMPv6*>(pdu)) {
        facts->protocol = "icmp6";
        add_neighbour(*icmp6, layer, facts);
    }
}

bool names_ports(uint8_t protocol) {
    return protocol == protocol_tcp || protocol == protocol_udp;
}

// A fragment that completes its packet counts as the packet. If its bytes are not all recorded, the first one
// does.
void add_fragment(const network_layer& layer, fragment_table* fragments, frame_facts* facts) {
    facts->protocol = fragment_name;
    facts->ends = {layer.from, layer.to};
    const bytes_view body = layer.body();
    const size_t head_bytes = std::min(fragment_table::head_bytes, body.size());
    fragment_table::head head(body.begin(), body.begin() + static_cast<ptrdiff_t>(head_bytes));
    const bool is_whole = layer.packet.size() == layer.length;
    const std::string key =
        std::to_string(layer.id) + " " + std::to_string(layer.protocol) + " " + layer.from + " " + layer.to;
    const bool counts = is_whole ? fragments->add(key, layer.part, &head) : layer.part.offset == 0;
    if (!counts) {
        return;
    }
    facts->protocol = std::to_string(layer.protocol);
    if (names_ports(layer.protocol) && head.size() == fragment_table::head_bytes) {
        const std::vector<uint8_t> ports(head.begin(), head.end());
        facts->protocol = layer.protocol == protocol_tcp ? "tcp" : "udp";
        set_ports(layer, number16(ports, 0), number16(ports, 2), facts);
    } else if (layer.protocol == IPPROTO_ICMP || layer.protocol == IPPROTO_ICMPV6) {
        facts->protocol = layer.protocol == IPPROTO_ICMP ? "icmp" : "icmp6";
    }
}

void add_network(const network_layer& layer, const Tins::PDU* inner, fragment_table* fragments,
                 frame_facts* facts) {
    facts->view = view_of(layer);
    facts->has_id = layer.id != 0;
    if (layer.is_fragment) {
        return add_fragment(layer, fragments, facts);
    }
    add_transport(inner, layer, facts);
}

void add_arp(const Tins::ARP& arp, bytes_view packet, frame_facts* facts) {
    constexpr size_t arp_bytes = 28;
    const std::string from = arp.sender_ip_addr().to_string();
    const std::string to = arp.target_ip_addr().to_string();
    facts->protocol = "arp";
    facts->ends = {from, to};
    facts->view = joined(2, packet.first(std::min(packet.size(), arp_bytes)));
    const bool is_question = arp.opcode() == Tins::ARP::REQUEST;
    // A host that announces or checks its own address expects no answer.
    if (from != to && from != "0.0.0.0" && (is_question || arp.opcode() == Tins::ARP::REPLY)) {
        facts->neighbour =
            is_question ? neighbour_message{true, to, from} : neighbour_message{false, from, to};
    }
}

void dissect(bytes_view frame, fragment_table* fragments, frame_facts* facts) {
    const Tins::EthernetII ethernet(frame.data(), static_cast<uint32_t>(frame.size()));
    size_t at = 0;
    // The innermost packet counts: that of a tunnel.
    for (const Tins::PDU* pdu = &ethernet; pdu; pdu = pdu->inner_pdu()) {
        const bytes_view bytes = frame.subspan(std::min(at, frame.size()));
        const auto* ip = Tins::tins_cast<const Tins::IP*>(pdu);
        const auto* ip6 = Tins::tins_cast<const Tins::IPv6*>(pdu);
        if (ip && bytes.size() >= ipv4_header) {
            add_network(layer_of(*ip, bytes), pdu->inner_pdu(), fragments, facts);
        } else if (ip6 && bytes.size() >= ipv6_header) {
            add_network(layer_of(*ip6, bytes), pdu->inner_pdu(), fragments, facts);
        } else if (const auto* arp = Tins::tins_cast<const Tins::ARP*>(pdu)) {
            add_arp(*arp, bytes, facts);
        }
        at += pdu->header_size();
    }
}

}  // namespace

frame_facts frame_dissect(const capture_record& record, fragment_table* fragments) {
    frame_facts facts;
    name_by_ethertype(record.frame, &facts);
    if (ethertype_of(record.frame) < first_ethertype) {
        return facts;
    }
    try {
        frame_facts whole = facts;
        dissect(record.frame, fragments, &whole);
        return whole;
    } catch (const std::exception&) {
        return facts;
    }
}

}  // namespace archiveview
