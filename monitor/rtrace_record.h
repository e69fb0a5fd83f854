// The records of a resource trace: a header of 20 bytes, followed by data.
//
//   offset  size
//        0     4  type      what the data is (rtrace_type)
//        4     4  length    bytes of data after the header
//        8     8  time_ms   wall clock when the header was written, signed, in milliseconds
//       16     1  more      1: a piece of a file, of which more follows; or the begin of a group
//       17     3  zero
//
// Numbers have the byte order of the machine that writes them. A file is one or more pieces (more = 1) and a
// closing header without data (more = 0). A file that is empty or cannot be opened gives no record. In the
// records of one process, the data of each piece begins with the process id in 4 bytes.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

enum rtrace_type : uint32_t {
    rtrace_type_iostat = 1,
    rtrace_type_smaps = 2,   // of one process
    rtrace_type_status = 3,  // of one process
    rtrace_type_group = 4,   // no data; the records of all processes begin (more = 1) or end (more = 0)
    rtrace_type_followed = 5,
    rtrace_type_smapstot = 6,
    rtrace_type_filenr = 7,
    rtrace_type_meminfo = 8,
    rtrace_type_diskinfo = 9,
    rtrace_type_pagetypeinfo = 10,
    rtrace_type_pellora = 11,
    rtrace_type_event = 12,
    rtrace_type_pidstat = 13,
};

constexpr unsigned rtrace_header_size = 20;
constexpr unsigned rtrace_pid_size = 4;
constexpr unsigned rtrace_data_capacity = 204800;  // of one record, without the process id

struct rtrace_header {
    uint32_t type;
    uint32_t length;
    int64_t time_ms;
    uint8_t more;
};

// Stores the 20 bytes of a header at `to`, which need not be aligned.
void rtrace_put_header(char* to, const rtrace_header& header);

// The output of one trace. Callers store the data of a record at rtrace_data; the writers add the header and
// the process id before it, so a record is one write without a copy.
struct rtrace_sink {
    // The header and the process id, the data, and the closing header of the file.
    static constexpr size_t buffer_size =
        rtrace_header_size + rtrace_pid_size + rtrace_data_capacity + rtrace_header_size;
    int fd;        // borrowed
    char* buffer;  // borrowed; buffer_size bytes
};

// The place of the data: rtrace_data_capacity bytes and one for a NUL.
char* rtrace_data(const rtrace_sink& sink);

// The data has no process id.
constexpr pid_t rtrace_no_pid = -1;

// The writers return false if the write fails.

// Writes the `size` bytes at rtrace_data as one record.
bool rtrace_write_data(const rtrace_sink& sink, rtrace_type type, pid_t pid, unsigned size, uint8_t more);

// Writes the last piece of a file and the closing header in one write.
bool rtrace_write_last_piece(const rtrace_sink& sink, rtrace_type type, pid_t pid, unsigned size);

// Writes a header without data.
bool rtrace_write_bare(const rtrace_sink& sink, rtrace_type type, uint8_t more);
