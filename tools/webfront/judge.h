// What becomes of a request: a pure function of its head.
#pragma once

#include <stdint.h>

#include <string>

#include "tools/webfront/head.h"

struct webfront_verdict {
    bool hand_over = false;
    std::string bytes;  // the message for the daemon when handed over, else the whole answer
};

// The verdict on a head that is bad or too large.
webfront_verdict webfront_judge_broken(webfront_head_state state);

// The verdict on a complete head, received by the front on 127.0.0.1:`port`. The Host comes first: who came
// by a foreign name learns nothing else.
webfront_verdict webfront_judge(const webfront_head& head, uint16_t port);
