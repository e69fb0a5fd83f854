#include "tools/webfront/interfaces.h"

#include <net/if.h>

#include <memory>

#include "tools/json/json_output.h"

namespace {

struct list_freer {
    void operator()(struct if_nameindex* list) const { if_freenameindex(list); }
};

}  // namespace

std::vector<std::string> webfront_read_interfaces() {
    std::vector<std::string> names;
    std::unique_ptr<struct if_nameindex, list_freer> list(if_nameindex());
    for (const struct if_nameindex* one = list.get(); one && one->if_index != 0; one++) {
        names.emplace_back(one->if_name);
    }
    return names;
}

std::string webfront_interfaces_json(std::span<const std::string> names) {
    json_output json;
    json.begin_object();
    json.key("interfaces");
    json.begin_array();
    for (const std::string& name : names) {
        json.string(name);
    }
    json.end_array();
    json.end_object();
    json.end_line();
    return std::string(json.text());
}
