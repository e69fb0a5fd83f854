#include "tools/archiveview/facts/capture.h"

namespace archiveview {

void capture_parse(capture_facts* /*facts*/, std::string_view /*bytes*/) {}
void capture_join(capture_facts* /*facts*/, const socket_list& /*sockets*/,
                  const process_list& /*processes*/) {}

}  // namespace archiveview
