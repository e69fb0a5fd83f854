#include "trace/print_syscall.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "trace/syscall_names.h"
#include "trace/text_line.h"

namespace {

enum class arg_style : uint8_t {
    none,
    fd,
    text,            // a string that ends in a NUL
    data,            // bytes; argument `length` is their number
    data_read,       // the address at the entry; bytes at the exit, the result is their number
    time_pair,       // two words
    decimal,         // %ld
    number,          // %lu
    hex,             // 0x%lx
    bare_hex,        // %lx
    hex_int,         // 0x%x
    bare_hex_int,    // %x
    decimal_0x,      // 0x%ld; deliberate
    ptrace_request,  // its name, or its number if it has no name here
};

// How one argument is printed.
struct arg_format {
    arg_style style = arg_style::none;
    uint8_t arg = 0;     // from 1
    uint8_t length = 0;  // from 1
};

struct call_format {
    int number;
    arg_format args[6];
    bool is_exit = false;
    bool hex_result = false;
};

// The notation of the tables below: `hex(2)` prints argument 2 in that style.
struct styled {
    arg_style style;
    constexpr arg_format operator()(uint8_t arg, uint8_t length = 0) const { return {style, arg, length}; }
};

constexpr styled fd{arg_style::fd};
constexpr styled text{arg_style::text};
constexpr styled data{arg_style::data};
constexpr styled data_read{arg_style::data_read};
constexpr styled time_pair{arg_style::time_pair};
constexpr styled dec{arg_style::decimal};
constexpr styled num{arg_style::number};
constexpr styled hex{arg_style::hex};
constexpr styled bare{arg_style::bare_hex};
constexpr styled hex_int{arg_style::hex_int};
constexpr styled bare_int{arg_style::bare_hex_int};
constexpr styled dec_0x{arg_style::decimal_0x};
constexpr styled request{arg_style::ptrace_request};

constexpr int nr_socketcall = 4102;

constexpr call_format formats[] = {
    {4001, {dec(1)}, true},                                                // exit
    {4003, {fd(1), data_read(2), dec(3)}},                                 // read
    {4004, {fd(1), data(2, 3), dec(3)}},                                   // write
    {4006, {fd(1)}},                                                       // close
    {4007, {dec_0x(1), hex(2), dec(3)}},                                   // waitpid
    {4013, {hex(1)}},                                                      // time
    {4019, {fd(1), dec(2), dec(3)}},                                       // lseek
    {4026, {request(1), num(2), hex(3), hex(4)}},                          // ptrace
    {4033, {text(1), hex_int(2)}},                                         // access
    {4045, {hex(1)}},                                                      // brk
    {4054, {fd(1), dec(2), bare(3), bare(4), bare(5), bare(6)}},           // ioctl
    {4078, {hex(1), hex(2)}},                                              // gettimeofday
    {4079, {hex(1), hex(2)}},                                              // settimeofday
    {4090, {hex(1), num(2), hex(3), hex(4), fd(5), num(6)}, false, true},  // mmap
    {4091, {hex(1), num(2)}},                                              // munmap
    {4106, {text(1), hex(2)}},                                             // stat
    {4107, {text(1), hex(2)}},                                             // lstat
    {4108, {fd(1), hex(2)}},                                               // fstat
    {4166, {time_pair(1), time_pair(2)}},                                  // nanosleep
    {4188, {hex(1), dec(2), dec(3)}},                                      // poll
    {4210, {hex(1), num(2), hex(3), hex(4), fd(5), num(6)}, false, true},  // mmap2
    {4246, {dec(1)}, true},                                                // exit_group
};

// All other calls.
constexpr call_format plain_format = {0, {num(1), num(2), num(3), num(4), num(5), num(6)}};

// The calls that socketcall multiplexes, by their socketcall number.
constexpr call_format socket_formats[] = {
    {1, {num(1), num(2), num(3)}},                              // socket
    {2, {fd(1), hex(2), dec(3)}},                               // bind
    {3, {fd(1), hex(2), dec(3)}},                               // connect
    {11, {fd(1), data(2, 3), dec(3), hex(4), hex(5), dec(6)}},  // sendto
    {12, {fd(1), data(2, 3), hex(4), hex(5), hex(6)}},          // recvfrom
    {13, {fd(1), dec(2)}},                                      // shutdown
    {14, {fd(1), dec(2), dec(3), hex(4), hex(5)}},              // setsockopt
    {16, {fd(1), hex(2), bare_int(3)}},                         // sendmsg
    {17, {fd(1), hex(2), dec(3)}},                              // recvmsg
};

// The same calls as system calls of their own.
constexpr struct {
    int number;
    int socketcall;
} direct_socket_calls[] = {
    {4169, 2}, {4170, 3}, {4176, 12}, {4177, 17}, {4179, 16}, {4180, 11}, {4181, 14}, {4182, 13}, {4183, 1},
};

constexpr const call_format* socket_format(int socketcall) {
    for (const call_format& format : socket_formats) {
        if (format.number == socketcall) {
            return &format;
        }
    }
    return &plain_format;
}

// For each call its index in `formats` or, from first_socket_format on, in socket_formats. Bytes instead of
// pointers: the table is a quarter of the size.
constexpr uint8_t first_socket_format = std::size(formats);
constexpr uint8_t no_format = first_socket_format + std::size(socket_formats);

constexpr auto format_indexes = [] {
    std::array<uint8_t, o32_calls> all{};
    all.fill(no_format);
    for (const call_format& format : formats) {
        all[static_cast<size_t>(format.number - o32_first)] = static_cast<uint8_t>(&format - formats);
    }
    for (const auto& direct : direct_socket_calls) {
        const auto index = socket_format(direct.socketcall) - socket_formats;
        all[static_cast<size_t>(direct.number - o32_first)] =
            static_cast<uint8_t>(first_socket_format + index);
    }
    return all;
}();

const call_format& format_of(size_t call) {
    const uint8_t index = call < format_indexes.size() ? format_indexes[call] : no_format;
    if (index < first_socket_format) {
        return formats[index];
    }
    return index < no_format ? socket_formats[index - first_socket_format] : plain_format;
}

constexpr struct {
    int64_t number;
    const char* name;
} ptrace_requests[] = {
    {1, "PTRACE_PEEKTEXT"}, {2, "PTRACE_PEEKDATA"}, {3, "PTRACE_PEEKUSER"}, {4, "PTRACE_POKETEXT"},
    {5, "PTRACE_POKEDATA"}, {6, "PTRACE_POKEUSER"}, {16, "PTRACE_ATTACH"},  {24, "PTRACE_SYSCALL"},
};

constexpr size_t description_size = 128;
constexpr int64_t until_nul = -1;
constexpr int64_t longest_uncut = 64;
constexpr size_t cut_length = 32;
constexpr size_t longest_escape = 4;

struct printer {
    const syscall_view& view;
    const syscall_record& call;
    bool entry;
    text_line line;

    long arg(uint8_t n) const { return static_cast<long>(call.arg[n - 1]); }
    unsigned long word(uint8_t n) const { return static_cast<unsigned long>(call.arg[n - 1]); }
};

void append_byte(text_line* line, unsigned char c) {
    switch (c) {
        case '\n':
            return text_append(line, "\\n");
        case '\r':
            return text_append(line, "\\r");
        case '\t':
            return text_append(line, "\\t");
        default:
            break;
    }
    if (c >= ' ' && c <= '~') {
        return text_append(line, static_cast<char>(c));
    }
    text_append(line, "\\x");
    text_append_hex(line, c);
}

// Quotes `length` bytes of the process, or a string if `length` is until_nul.
void append_data(printer* p, uint64_t address, int64_t length) {
    text_append(&p->line, '"');
    if (length >= 1 || length == until_nul) {
        bool cut = length == until_nul || length > longest_uncut;
        unsigned char bytes[tracee_text_limit];
        size_t got =
            tracee_text(*p->view.memory, address, bytes, cut ? cut_length : static_cast<size_t>(length));
        for (size_t i = 0; i < got && p->line.left() >= longest_escape; i++) {
            if (bytes[i] == '\0' && length == until_nul) {
                break;
            }
            append_byte(&p->line, bytes[i]);
        }
    }
    text_append(&p->line, '"');
}

void append_fd(printer* p, int number) {
    char description[description_size];
    text_append_decimal(&p->line, number);
    if (p->view.describe_fd(p->view, number, description, sizeof description) > 0) {
        text_append(&p->line, ' ');
        text_append(&p->line, description);
    }
}

void append_time_pair(printer* p, uint64_t address) {
    tracee_words words = tracee_word_pair(*p->view.memory, address);
    text_append(&p->line, "{ ");
    text_append_decimal(&p->line, static_cast<int>(words.first));
    text_append(&p->line, ", ");
    text_append_decimal(&p->line, static_cast<int>(words.second));
    text_append(&p->line, " }");
}

void append_request(printer* p, int64_t number) {
    auto found = std::ranges::find(ptrace_requests, number, [](const auto& known) { return known.number; });
    if (found != std::end(ptrace_requests)) {
        text_append(&p->line, found->name);
    } else {
        text_append_decimal(&p->line, static_cast<long>(number));
    }
}

void append_0x(printer* p, unsigned long value) {
    text_append(&p->line, "0x");
    text_append_hex(&p->line, value);
}

void append_argument(printer* p, const arg_format& format) {
    unsigned long word = p->word(format.arg);
    long value = p->arg(format.arg);
    uint64_t address = static_cast<uint64_t>(p->call.arg[format.arg - 1]);
    switch (format.style) {
        case arg_style::none:
            return;
        case arg_style::fd:
            return append_fd(p, static_cast<int>(value));
        case arg_style::text:
            return append_data(p, address, until_nul);
        case arg_style::data:
            return append_data(p, address, p->call.arg[format.length - 1]);
        case arg_style::data_read:
            return p->entry ? append_0x(p, word) : append_data(p, address, p->call.result);
        case arg_style::time_pair:
            return append_time_pair(p, address);
        case arg_style::decimal:
            return text_append_decimal(&p->line, value);
        case arg_style::number:
            return text_append_unsigned(&p->line, word);
        case arg_style::hex:
            return append_0x(p, word);
        case arg_style::bare_hex:
            return text_append_hex(&p->line, word);
        case arg_style::hex_int:
            return append_0x(p, static_cast<unsigned>(word));
        case arg_style::bare_hex_int:
            return text_append_hex(&p->line, static_cast<unsigned>(word));
        case arg_style::decimal_0x:
            text_append(&p->line, "0x");
            return text_append_decimal(&p->line, value);
        case arg_style::ptrace_request:
            return append_request(p, p->call.arg[format.arg - 1]);
    }
}

void append_head(printer* p, const char* call_name) {
    text_append(&p->line, '[');
    text_append_decimal(&p->line, p->view.pid);
    text_append(&p->line, ' ');
    text_append(&p->line, p->view.name);
    text_append(&p->line, "] [");
    text_append_hex(&p->line, static_cast<unsigned long>(p->call.pc));
    text_append(&p->line, ' ');
    text_append_hex(&p->line, static_cast<unsigned long>(p->call.ra));
    text_append(&p->line, "] ");
    text_append(&p->line, call_name);
    text_append(&p->line, '(');
}

void append_result(printer* p, const call_format& format) {
    text_append(&p->line, " = ");
    if (format.hex_result) {
        append_0x(p, static_cast<unsigned long>(p->call.result));
    } else {
        text_append_decimal(&p->line, static_cast<long>(p->call.result));
    }
    text_append(&p->line, '\n');
}

int print(printer* p, const char* call_name, const call_format& format) {
    append_head(p, call_name);
    for (const arg_format& arg : format.args) {
        if (arg.style == arg_style::none) {
            break;
        }
        if (&arg != &format.args[0]) {
            text_append(&p->line, ", ");
        }
        append_argument(p, arg);
    }
    text_append(&p->line, ')');
    if (!p->entry) {
        append_result(p, format);
    }
    return static_cast<int>(p->line.length);
}

// The arguments of a multiplexed call are six 32-bit words in the process's memory.
int print_socketcall(const syscall_view& view, const syscall_record& call, bool entry,
                     const text_line& line) {
    int socketcall = static_cast<int>(call.arg[0] & (socketcall_count - 1));
    int32_t block[6] = {};
    (void)view.memory->read_file(*view.memory, block, sizeof block, call.arg[1]);
    syscall_record inner = call;
    std::ranges::copy(block, inner.arg);
    printer p = {view, inner, entry, line};
    return print(&p, socketcall_names[static_cast<size_t>(socketcall)], *socket_format(socketcall));
}

}  // namespace

int print_syscall(const syscall_view& view, syscall_record* call, bool entry, char* buf, int size) {
    text_line line = {buf, static_cast<size_t>(size)};
    if (call->number == nr_socketcall) {
        return print_socketcall(view, *call, entry, line);
    }
    size_t index = static_cast<size_t>(call->number - o32_first);
    const call_format& format = format_of(index);
    if (format.is_exit && entry && view.entering_exit) {
        view.entering_exit(view, static_cast<int>(call->arg[0]));
    }
    printer p = {view, *call, entry, line};
    return print(&p, syscall_names[index], format);
}
