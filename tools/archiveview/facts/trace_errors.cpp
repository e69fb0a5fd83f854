#include "tools/archiveview/facts/trace_errors.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <iterator>

#include "tools/archiveview/facts/trace_calls.h"

namespace archiveview {

namespace {

constexpr int64_t largest_error = 1133;  // EDQUOT of MIPS

// The kernel's own results of a call that a signal has interrupted and that begins again.
constexpr int64_t first_restart = 512;
constexpr int64_t last_restart = 516;

// The errors that have another number on MIPS, where those above 34 are different.
constexpr struct {
    int number;
    int here;
} mips_errors[] = {
    {35, ENOMSG},
    {36, EIDRM},
    {37, ECHRNG},
    {38, EL2NSYNC},
    {39, EL3HLT},
    {40, EL3RST},
    {41, ELNRNG},
    {42, EUNATCH},
    {43, ENOCSI},
    {44, EL2HLT},
    {45, EDEADLK},
    {46, ENOLCK},
    {50, EBADE},
    {51, EBADR},
    {52, EXFULL},
    {53, ENOANO},
    {54, EBADRQC},
    {55, EBADSLT},
    {59, EBFONT},
    {60, ENOSTR},
    {61, ENODATA},
    {62, ETIME},
    {63, ENOSR},
    {64, ENONET},
    {65, ENOPKG},
    {66, EREMOTE},
    {67, ENOLINK},
    {68, EADV},
    {69, ESRMNT},
    {70, ECOMM},
    {71, EPROTO},
    {73, EDOTDOT},
    {74, EMULTIHOP},
    {77, EBADMSG},
    {78, ENAMETOOLONG},
    {79, EOVERFLOW},
    {80, ENOTUNIQ},
    {81, EBADFD},
    {82, EREMCHG},
    {83, ELIBACC},
    {84, ELIBBAD},
    {85, ELIBSCN},
    {86, ELIBMAX},
    {87, ELIBEXEC},
    {88, EILSEQ},
    {89, ENOSYS},
    {90, ELOOP},
    {92, ESTRPIPE},
    {93, ENOTEMPTY},
    {94, EUSERS},
    {95, ENOTSOCK},
    {96, EDESTADDRREQ},
    {97, EMSGSIZE},
    {98, EPROTOTYPE},
    {99, ENOPROTOOPT},
    {120, EPROTONOSUPPORT},
    {121, ESOCKTNOSUPPORT},
    {122, EOPNOTSUPP},
    {123, EPFNOSUPPORT},
    {124, EAFNOSUPPORT},
    {125, EADDRINUSE},
    {126, EADDRNOTAVAIL},
    {127, ENETDOWN},
    {128, ENETUNREACH},
    {129, ENETRESET},
    {130, ECONNABORTED},
    {131, ECONNRESET},
    {132, ENOBUFS},
    {133, EISCONN},
    {134, ENOTCONN},
    {135, EUCLEAN},
    {137, ENOTNAM},
    {138, ENAVAIL},
    {139, EISNAM},
    {140, EREMOTEIO},
    {143, ESHUTDOWN},
    {144, ETOOMANYREFS},
    {145, ETIMEDOUT},
    {146, ECONNREFUSED},
    {147, EHOSTDOWN},
    {148, EHOSTUNREACH},
    {149, EALREADY},
    {150, EINPROGRESS},
    {151, ESTALE},
    {158, ECANCELED},
    {159, ENOMEDIUM},
    {160, EMEDIUMTYPE},
    {161, ENOKEY},
    {162, EKEYEXPIRED},
    {163, EKEYREVOKED},
    {164, EKEYREJECTED},
    {165, EOWNERDEAD},
    {166, ENOTRECOVERABLE},
    {167, ERFKILL},
    {168, EHWPOISON},
    {1133, EDQUOT},
};

int mips_error(int64_t number) {
    constexpr int64_t last_common = ERANGE;
    if (number <= last_common) {
        return static_cast<int>(number);
    }
    const auto found = std::ranges::find(mips_errors, number, [](const auto& known) { return known.number; });
    return found == std::end(mips_errors) ? 0 : found->here;
}

// Calls that return 0 or an error.
constexpr std::string_view zero_calls[] = {
    "access",          "bind",           "chdir",       "chmod",        "chown",     "clock_gettime",
    "clock_nanosleep", "close",          "connect",     "execve",       "fchmod",    "fchown",
    "fdatasync",       "fstat",          "fstat64",     "fsync",        "ftruncate", "ftruncate64",
    "getpeername",     "getsockname",    "getsockopt",  "gettimeofday", "kill",      "link",
    "listen",          "lstat",          "lstat64",     "mkdir",        "mount",     "mprotect",
    "msync",           "munmap",         "nanosleep",   "pipe",         "rename",    "rmdir",
    "rt_sigaction",    "rt_sigprocmask", "sched_yield", "setsockopt",   "shutdown",  "stat",
    "stat64",          "statfs",         "statfs64",    "symlink",      "tgkill",    "tkill",
    "truncate",        "umount2",        "unlink",      "utimes",
};

// Calls that return a new descriptor. 1 and 2 are hardly ever free: they are EPERM and ENOENT.
constexpr std::string_view opening_calls[] = {"creat", "open", "openat"};

// Calls that return a child's process id. ECHILD is the id of a process of the kernel.
constexpr std::string_view child_calls[] = {"wait4", "waitid", "waitpid"};

// Calls that return at most their last argument.
constexpr std::string_view counting_calls[] = {"read", "write"};

bool is_mips_error(const trace_line& line) {
    if (line.result < 1 || line.result > largest_error) {
        return false;
    }
    if (trace_is_one_of(line.call, zero_calls)) {
        return true;
    }
    if (trace_is_one_of(line.call, opening_calls)) {
        return line.result == ENOENT || line.result == EPERM;
    }
    if (trace_is_one_of(line.call, child_calls)) {
        return line.result == ECHILD;
    }
    return trace_is_one_of(line.call, counting_calls) &&
           line.result > trace_last_argument(line.arguments).value_or(largest_error);
}

bool is_restart(int64_t number) {
    return number >= first_restart && number <= last_restart;
}

}  // namespace

int trace_error_of(const trace_line& line) {
    if (line.is_mips && is_mips_error(line)) {
        return is_restart(line.result) ? 0 : mips_error(line.result);
    }
    const bool is_error = line.result < 0 && line.result >= -largest_error && !is_restart(-line.result);
    return is_error ? static_cast<int>(-line.result) : 0;
}

std::string trace_error_name(int error) {
    const char* name = strerrorname_np(error);
    return name ? name : "error " + std::to_string(error);
}

}  // namespace archiveview
