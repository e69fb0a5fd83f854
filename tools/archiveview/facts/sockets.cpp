#include "tools/archiveview/facts/sockets.h"

namespace archiveview {

void sockets_add_table(socket_list* /*list*/, std::string_view /*protocol*/, int /*look*/,
                       std::string_view /*text*/, bool /*is_big_endian*/) {}
void sockets_join(socket_list* /*list*/, const process_list& /*processes*/) {}
int sockets_owner(const socket_list& /*list*/, std::string_view /*protocol*/, std::string_view /*local*/,
                  std::string_view /*remote*/) {
    return 0;
}

}  // namespace archiveview
