#include "tools/archiveview/facts/core.h"

namespace archiveview {

struct core_reader::state {
    core_facts facts;
};
core_reader::core_reader(std::string /*member*/, std::string /*folder_name*/, int /*pid*/, uint64_t /*size*/,
                         const core_options& /*options*/)
    : state_(std::make_unique<state>()) {}
core_reader::~core_reader() = default;
void core_reader::add(std::span<const char> /*bytes*/) {}
core_facts core_reader::finish() {
    return std::move(state_->facts);
}

std::string core_gdb_command(const core_facts& /*core*/, std::string_view /*archive*/) {
    return {};
}

void cores_add_stacks(std::vector<core_facts>* /*cores*/, const core_options& /*options*/) {}

}  // namespace archiveview
