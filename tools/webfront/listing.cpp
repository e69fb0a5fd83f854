#include "tools/webfront/listing.h"

#include <algorithm>
#include <iterator>

#include "tools/webfront/answer.h"
#include "tools/webfront/interfaces.h"
#include "tools/webfront/processes.h"

namespace {

constexpr struct {
    std::string_view path;
    std::string (*make)();
} listings[] = {
    {"/webfront/processes", [] { return webfront_processes_json(webfront_read_processes("/proc")); }},
    {"/webfront/interfaces", [] { return webfront_interfaces_json(webfront_read_interfaces()); }},
};

const auto* find(std::string_view path) {
    return std::ranges::find(listings, path, [](const auto& one) { return one.path; });
}

}  // namespace

bool webfront_is_listing(std::string_view path) {
    return find(path) != std::end(listings);
}

std::string webfront_list(const webfront_job& job) {
    const auto* listing = find(job.request);
    if (listing == std::end(listings)) {
        return webfront_error(404, "There is no such list.");
    }
    return webfront_answer(200, "application/json", listing->make());
}
