// The counters of interfaces and protocols.
#include "common/ascii.h"
#include "tools/archiveview/facts/look_files.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

constexpr size_t protocol_name_limit = 64;  // is repeated before each counter

constexpr struct {
    std::string_view name;
    uint64_t interface_counters::*rx;
    uint64_t interface_counters::*tx;
} interface_columns[] = {
    {"bytes", &interface_counters::rx_bytes, &interface_counters::tx_bytes},
    {"packets", &interface_counters::rx_packets, &interface_counters::tx_packets},
    {"errs", &interface_counters::rx_errors, &interface_counters::tx_errors},
    {"drop", &interface_counters::rx_dropped, &interface_counters::tx_dropped},
};

// The fields that the columns belong to, in order; null for a column that is not used.
using interface_fields = std::vector<uint64_t interface_counters::*>;

// `title` is the line " face |bytes packets errs ...|bytes packets ...".
interface_fields fields_of(std::string_view title) {
    interface_fields fields;
    const size_t rx = title.find('|');
    const size_t tx = title.rfind('|');
    for (size_t begin : {rx, tx}) {
        std::string_view names = begin == tx ? title.substr(tx + 1) : title.substr(rx + 1, tx - rx - 1);
        for (std::string_view name = take_word(&names); !name.empty(); name = take_word(&names)) {
            fields.push_back(nullptr);
            for (const auto& column : interface_columns) {
                if (column.name == name) {
                    fields.back() = begin == tx ? column.tx : column.rx;
                }
            }
        }
    }
    return fields;
}

}  // namespace

void look_read_net_dev(look* l, std::string_view text) {
    l->interfaces.clear();
    interface_fields fields;
    for_each_whole_line(text, [&](std::string_view line) {
        if (line.find('|') != std::string_view::npos) {
            fields = fields_of(line);
            return;
        }
        const size_t colon = line.rfind(':');  // a name may hold one; no space need follow
        if (colon == std::string_view::npos) {
            return;
        }
        interface_counters each;
        each.name = trimmed(line.substr(0, colon));
        line.remove_prefix(colon + 1);
        for (auto field : fields) {
            const uint64_t value = take_number(&line);
            if (field) {
                each.*field = value;
            }
        }
        add_within(&l->interfaces, counter_limit, std::move(each));
    });
}

// Two lines make a table: "Tcp: InSegs OutSegs" and "Tcp: 5 7". Limits may be negative and are left out.
void look_read_snmp(look* l, std::string_view text) {
    std::string_view names;
    for_each_whole_line(text, [&](std::string_view line) {
        std::string_view values = line;
        std::string_view protocol = take_word(&values);
        if (take_word(&names) != protocol || !protocol.ends_with(':') ||
            protocol.size() > protocol_name_limit) {
            names = line;
            return;
        }
        protocol.remove_suffix(1);
        for (std::string_view name = take_word(&names); !name.empty(); name = take_word(&names)) {
            if (const std::optional<uint64_t> value = number_of(take_word(&values))) {
                std::string whole(protocol);
                look_set_counter(&l->protocols, whole.append(".").append(name), *value);
            }
        }
    });
}

// "Icmp6InMsgs 7": the protocol's name ends with its digit.
void look_read_snmp6(look* l, std::string_view text) {
    for_each_whole_line(text, [l](std::string_view line) {
        std::string name(take_word(&line));
        const std::optional<uint64_t> value = number_of(take_word(&line));
        if (const size_t digit = name.find('6'); value && digit != std::string::npos) {
            look_set_counter(&l->protocols, name.insert(digit + 1, "."), *value);
        }
    });
}

}  // namespace archiveview
