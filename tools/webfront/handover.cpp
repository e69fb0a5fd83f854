#include "tools/webfront/handover.h"

#include <system_error>

#include "platform/qorlink.h"
#include "tools/webfront/answer.h"

std::string webfront_hand_over(const std::string& socket_path, const webfront_job& job) {
    if (std::chrono::steady_clock::now() - job.since > webfront_queue_time) {
        return webfront_error(503, "The daemon at " + socket_path + " is busy; try again later.");
    }
    if (qorlink_send(socket_path.c_str(), job.request.data(), static_cast<int>(job.request.size()),
                     job.client.get()) == 0) {
        return {};
    }
    return webfront_error(502, "The daemon at " + socket_path + " did not take the request: " +
                                   std::generic_category().message(errno) + ".");
}
