// The records of a resource trace: a header of 20 bytes and the data that it announces.
//
//   offset  size
//        0     4  type      what the data is (rtrace_type)
//        4     4  length    bytes of data behind the header
//        8     8  time_ms   wall clock when the header was written, signed, in milliseconds
//       16     1  more      1: the data is a piece of a file of which more follows, or a group begins
//       17     3  zero
//
// All numbers are in the byte order of the machine that writes. A file is one or more pieces (more = 1) and a
// closing header without data (more = 0); a file that is empty or can't be opened leaves nothing. The data of
// the two records of processes begins with the process id in 4 bytes, in each piece.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

enum rtrace_type : uint32_t {
    rtrace_type_iostat = 1,
    rtrace_type_smaps = 2,   // of one process
    rtrace_type_status = 3,  // of one process
    rtrace_type_group = 4,   // no data: the records of all processes begin (more = 1) or end (more = 0)
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
constexpr unsigned rtrace_data_capacity = 204800;  // the most that a record holds, besides the process id

struct rtrace_header {
    uint32_t type;
    uint32_t length;
    int64_t time_ms;
    uint8_t more;
};

// Writes the 20 bytes of a header to `to`, which need not be aligned.
void rtrace_put_header(char* to, const rtrace_header& header);

// Where the records of one trace go. The data of a record is filled in where rtrace_data says and stays
// there; the header and the process id are put in front of it, so that a record is one write without a copy.
struct rtrace_sink {
    // What `room` has to hold: header and process id, data, the closing header of the file.
    static constexpr size_t room_size =
        rtrace_header_size + rtrace_pid_size + rtrace_data_capacity + rtrace_header_size;
    int fd;      // borrowed
    char* room;  // borrowed
};

// Room for rtrace_data_capacity bytes and a zero byte behind them.
char* rtrace_data(const rtrace_sink& sink);

// No process id in front of the data.
constexpr pid_t rtrace_no_pid = -1;

// The writers return false when the write failed, with errno as it left it.

// One record of the `size` bytes at rtrace_data, with `more` as stated.
bool rtrace_write_data(const rtrace_sink& sink, rtrace_type type, pid_t pid, unsigned size, uint8_t more);

// The last piece of a file and its closing header, in one write.
bool rtrace_write_last_piece(const rtrace_sink& sink, rtrace_type type, pid_t pid, unsigned size);

// A header without data.
bool rtrace_write_bare(const rtrace_sink& sink, rtrace_type type, uint8_t more);
