// What becomes of a request: a pure function of its head.
#pragma once

#include <stdint.h>

#include <string>

#include "tools/webfront/head.h"

enum class webfront_road {
    answer,   // the bytes are the whole answer
    daemon,   // the bytes are the message with which the connection is handed over
    listing,  // the bytes are the path of a listing, which is to be made
};

struct webfront_verdict {
    webfront_road road = webfront_road::answer;
    std::string bytes;
};

// The verdict on a head that is bad or too large.
webfront_verdict webfront_judge_broken(webfront_head_state state);

// The verdict on a complete head, received by the front on 127.0.0.1:`port`. The Host comes first: who came
// by a foreign name learns nothing else.
webfront_verdict webfront_judge(const webfront_head& head, uint16_t port);
