#include "archive/system_text.h"

#include "common/time_stamp.h"

void system_text_add_fact(heap_text* text, const char* name, std::string_view value) {
    heap_text_print(text, "%s: ", name);
    heap_text_add(text, value.substr(0, value.find('\n')));
    heap_text_print(text, "\n");
}

void system_text_add_kernel(heap_text* text, const utsname& kernel) {
    system_text_add_fact(text, "host", kernel.nodename);
    heap_text_print(text, "kernel: %s %s %s %s\n", kernel.sysname, kernel.release, kernel.version,
                    kernel.machine);
}

void system_text_add_uptime(heap_text* text, uint32_t seconds) {
    const uint32_t minutes = seconds / 60;
    const uint32_t hours = minutes / 60;
    heap_text_print(text, "uptime: %u s (%u d %u h %u min)\n", seconds, hours / 24, hours % 24, minutes % 60);
}

void system_text_add_time(heap_text* text, time_t now) {
    char line[128];
    const tm local = local_time(now);
    heap_text_add(text, {line, strftime(line, sizeof line, "local time: %F %T %z %Z\n", &local)});
    tm utc;
    gmtime_r(&now, &utc);
    heap_text_add(text, {line, strftime(line, sizeof line, "UTC: %F %T\n", &utc)});
}

void system_text_add_clock(heap_text* text, int state, const timex& clock) {
    heap_text_print(text, "clock: %ssynchronised, estimated error %lld us, maximum error %lld us\n",
                    state == TIME_ERROR || (clock.status & STA_UNSYNC) != 0 ? "not " : "",
                    static_cast<long long>(clock.esterror), static_cast<long long>(clock.maxerror));
}
