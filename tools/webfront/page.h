// The front's one page.
#pragma once

#include <string>

// An HTML page with a link for each kind of request that the daemon knows, or a small form where the request
// names processes.
std::string webfront_page();
