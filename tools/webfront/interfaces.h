// The machine's network interfaces, for the page's list of choices.
#pragma once

#include <span>
#include <string>
#include <vector>

// Returns their names in the kernel's order, or nothing when they cannot be listed.
std::vector<std::string> webfront_read_interfaces();

// {"interfaces": ["lo", ...]}
std::string webfront_interfaces_json(std::span<const std::string> names);
