#include "tools/archiveview/source/archive_source.h"

namespace archiveview {

struct archive_source::implementation {
    byte_source read;
    source_state state;
};
archive_source::archive_source(byte_source read) : implementation_(std::make_unique<implementation>()) {
    implementation_->read = std::move(read);
}
archive_source::~archive_source() = default;
bool archive_source::next(source_member* /*member*/) {
    return false;
}
size_t archive_source::read(std::span<char> /*buffer*/) {
    return 0;
}
const source_state& archive_source::state() const {
    return implementation_->state;
}

}  // namespace archiveview
