// Questions in a capture and their answers: names, and neighbours' addresses.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/archiveview/facts/capture.h"
#include "tools/archiveview/facts/capture_frame.h"

namespace archiveview {

class question_list {
public:
    void add_name(const frame_facts& frame);
    void add_neighbour(const neighbour_message& message);

    // Those with the most unanswered questions first.
    std::vector<asked_name> take_names();
    std::vector<asked_name> take_neighbours();

private:
    using question_map = std::map<std::pair<std::string, std::string>, asked_name>;
    // `number` is the one that a message and its answer share.
    void add_answer(const frame_facts& frame, const std::string& number);
    static asked_name* find(question_map* all, const std::string& name, const std::string& server);
    static std::vector<asked_name> sorted(question_map&& all);

    question_map names_, neighbours_;
    std::map<std::string, std::vector<std::string>> pending_;  // names by ends and number of the message
};

}  // namespace archiveview
