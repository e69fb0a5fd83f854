#include "tools/webfront/interfaces.h"

#include <net/if.h>

#include <memory>

#include "tools/webfront/json.h"

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
    std::string text = "{\"interfaces\":[";
    for (const std::string& name : names) {
        text += (text.ends_with('[') ? "" : ",") + webfront_json_string(name);
    }
    return text += "]}\n";
}
