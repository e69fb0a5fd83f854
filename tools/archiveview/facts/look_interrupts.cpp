// The tables of interrupts and softirqs: a column for each processor.
#include <algorithm>

#include "tools/archiveview/facts/look_files.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

// What a kernel prints between the controller and the device: "23", "Level", "5-edge". A device on an I2C bus
// has a name like "0-0041".
bool is_controller_noise(std::string_view word) {
    if (word == "Level" || word == "Edge") {
        return true;
    }
    while (!word.empty() && is_ascii_digit(word.front())) {
        word.remove_prefix(1);
    }
    return word.empty() || (word.size() > 1 && word[0] == '-' && !is_ascii_digit(word[1]));
}

// What follows the counts of a numbered interrupt: the controller, perhaps its number of the interrupt and
// the trigger, then the devices. Two spaces precede the devices; a controller's name may hold single ones.
std::string_view device_of(std::string_view rest) {
    rest = trimmed(rest);
    const size_t gap = rest.rfind("  ");
    if (gap == std::string_view::npos) {
        return {};
    }
    const std::string_view device = trimmed(rest.substr(gap));
    std::string_view words = device;
    while (is_controller_noise(take_word(&words))) {
        if (words.empty()) {
            return {};
        }
    }
    return device;
}

// Takes a column of each processor off the line, or fewer if the line has fewer: "ERR" has one.
uint64_t take_counts(std::string_view* line, size_t processors) {
    uint64_t sum = 0;
    for (size_t i = 0; i < processors; i++) {
        std::string_view after = *line;
        const std::optional<uint64_t> count = number_of(take_word(&after));
        if (!count) {
            break;
        }
        sum += *count;
        *line = after;
    }
    return sum;
}

std::vector<named_counter> counters_of(std::string_view text) {
    std::vector<named_counter> counters;
    size_t processors = 0;
    for_each_whole_line(text, [&](std::string_view line) {
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos) {
            for (processors = 0; take_word(&line).starts_with("CPU"); processors++) {
            }
            return;
        }
        const std::string_view name = trimmed(line.substr(0, colon));
        line.remove_prefix(colon + 1);
        const uint64_t count = take_counts(&line, processors);
        const std::string_view device = number_of(name) ? device_of(line) : trimmed(line);
        add_within(&counters, counter_limit,
                   named_counter{std::string(name), std::string(device.substr(0, line_limit)), count});
    });
    return counters;
}

}  // namespace

void look_read_interrupts(look* l, std::string_view text) {
    l->interrupts = counters_of(text);
}

void look_read_softirqs(look* l, std::string_view text) {
    l->softirqs = counters_of(text);
}

}  // namespace archiveview
