#include "tools/archiveview/facts/core.h"

namespace archiveview {

struct core_reader::state {
    core_facts facts;
};
core_reader::core_reader(std::string /*member*/, std::string /*folder_name*/, int /*pid*/, uint64_t /*size*/)
    : state_(std::make_unique<state>()) {}
core_reader::~core_reader() = default;
void core_reader::add(std::span<const char> /*bytes*/) {}
core_facts core_reader::finish() {
    return std::move(state_->facts);
}

}  // namespace archiveview
