// Bounds on what is read from an archive. Every byte of an archive may be hostile.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace archiveview {

constexpr uint64_t member_limit = 100000;               // members of an archive; reading ends after them
constexpr uint64_t unpacked_limit = uint64_t{2} << 30;  // bytes of all members; reading ends after them
constexpr size_t name_limit = 256;                      // bytes of a member's name; a longer one is cut
constexpr size_t text_limit = size_t{8} << 20;          // bytes of a text that is parsed; the rest is skipped
constexpr size_t shown_text_limit = size_t{100} << 10;  // bytes of a member that is shown as text
constexpr size_t shown_texts_limit = size_t{12} << 20;  // bytes of all members that are shown as text
constexpr size_t page_limit = 4500000;  // bytes of the data in a page, as they are stored in it
constexpr size_t skipped_limit = 200;   // names of members that were not looked at
constexpr size_t process_limit = 4096;
constexpr size_t thread_limit = 4096;                        // of one process
constexpr size_t descriptor_limit = 65536;                   // of one process
constexpr size_t path_limit = 4096;                          // bytes of a target; a longer one is cut
constexpr size_t descriptor_bytes_limit = size_t{32} << 20;  // memory of the descriptors of all processes
constexpr size_t command_limit = 2048;                       // bytes of a command line; a longer one is cut
constexpr size_t counter_limit = 20000;                      // names in one table of counters
constexpr size_t processor_limit = 1024;
constexpr size_t setting_limit = 512;       // bytes of a kernel setting; a longer text is no setting
constexpr size_t line_limit = 4096;         // bytes of a line that is kept, such as the kernel's command line
constexpr size_t log_line_limit = 50000;    // newest lines of the kernel's log
constexpr size_t oops_limit = 1024;         // records in flash memory
constexpr size_t oops_line_limit = 256;     // of one of them
constexpr size_t group_change_limit = 150;  // changes of one kind between the looks
constexpr size_t socket_limit = 65536;
constexpr size_t conversation_limit = 20000;
constexpr size_t fragmented_limit = 4096;   // packets whose fragments are not complete
constexpr size_t question_limit = 4096;     // names, or addresses, that are asked for
constexpr size_t call_limit = 512;          // names of calls, and of errors, of one traced process
constexpr size_t signal_limit = 1000;       // of one traced process
constexpr size_t traced_line_limit = 4096;  // bytes of a trace's line that is shown
constexpr size_t core_limit = 1024;
constexpr size_t core_notes_limit = size_t{8}
                                    << 20;  // bytes at the start of a core, up to the end of its notes
constexpr size_t mapping_limit = 65536;     // of one core
constexpr size_t spooled_core_limit = size_t{64} << 20;  // of a core that a debugger is shown
constexpr size_t stack_text_limit = size_t{4} << 20;     // of what a debugger prints about a core

}  // namespace archiveview
