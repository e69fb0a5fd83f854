// Decides what happens to a request. The decision depends on its head alone.
#pragma once

#include <stdint.h>

#include <string>

#include "tools/webfront/head.h"

enum class webfront_route {
    answer,   // the front answers; the bytes are the whole answer
    daemon,   // the daemon answers; the bytes are the message that goes with the connection
    listing,  // the front makes a listing; the bytes are its path
    report,   // the front makes a report, or has made it; the bytes are the query
};

struct webfront_decision {
    webfront_route route = webfront_route::answer;
    std::string bytes;
};

// Decides on a head that is bad or too large.
webfront_decision webfront_decide_broken(webfront_head_state state);

// Decides on a complete head that the front received on 127.0.0.1:`port`. The Host field is checked first, so
// that a client that used a foreign host name learns nothing else.
webfront_decision webfront_decide(const webfront_head& head, uint16_t port);
