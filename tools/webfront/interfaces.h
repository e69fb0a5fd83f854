// The machine's network interfaces, for the page's choice.
#pragma once

#include <span>
#include <string>
#include <vector>

// Their names, in the kernel's order; none when they can't be listed.
std::vector<std::string> webfront_read_interfaces();

// {"interfaces": ["lo", ...]}
std::string webfront_interfaces_json(std::span<const std::string> names);
