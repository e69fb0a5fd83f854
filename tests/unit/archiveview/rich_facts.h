// Facts of a device with many faults, made by hand, in which each field of each structure has a value.
#pragma once

#include <string>
#include <vector>

#include "tools/archiveview/findings/findings.h"

namespace archiveview {

inline look rich_look(double uptime, uint64_t scale) {
    look seen;
    seen.is_present = true;
    seen.stamp = scale == 1 ? "20261122-161132" : "20261122-161142";
    seen.uptime_seconds = uptime;
    seen.idle_seconds = uptime * 1.5;
    seen.load = "0.52 0.40 0.31 2/143 4711";
    seen.processors = {{100 * scale, 50 * scale, 1000, 10, 5, 1}, {50 * scale, 25 * scale, 500, 5, 3, 1}};
    seen.context_switches = 90000 * scale;
    seen.forks = 700 * scale;
    seen.boot_time = 1795000000;
    seen.running = 2;
    seen.blocked = 1;
    seen.memory_kb = {{"MemTotal", 120000}, {"MemAvailable", 30000 / scale}};
    seen.vmstat = {{"pgfault", 800 * scale}};
    seen.interrupts = {{"14", "serial", 3000 * scale}};
    seen.softirqs = {{"NET_RX", "", 500 * scale}};
    seen.slabs = {{"kmalloc-64", 4000 * scale, 64}};
    seen.disks = {{"mmcblk0", 100 * scale, 2000 * scale, 50, 1000, 900}};
    seen.interfaces = {{"eth0", 1000000 * scale, 1000, 0, 0, 500000, 600, 0, 2}};
    seen.protocols = {{"Tcp.RetransSegs", 5 * scale}};
    seen.settings = {{"sys/vm/swappiness", scale == 1 ? "60" : "10"}};
    seen.mounts = {{"/dev/mmcblk0p2", "/data", "ext4", "ro,relatime"}};
    seen.modules = {"video 40960 2 - Live 0x0000000000000000"};
    seen.version = "Linux version 4.9.0";
    seen.command_line = "console=ttyS0";
    seen.processor = "MIPS 74Kc";
    seen.machine = "board";
    return seen;
}

inline archive_summary rich_archive() {
    archive_summary archive;
    archive.state = archive_state::cut;
    archive.is_readable = archive.is_full = archive.is_compressed = true;
    archive.reason = "It ends in the middle of a core.";
    archive.directory = "debug-cam1-20261122-161132";
    archive.cut_member = "core-streamd-412/core";
    archive.cut_member_bytes = 1234567;
    archive.members = 311;
    archive.bytes = 98765432;
    archive.missing = {"manifest", "kernel log"};
    archive.member_errors = {{"proc/kmsg", "Operation not permitted"}};
    archive.not_examined = {{"proc/kallsyms", "It is larger than 8 MiB."}};
    archive.texts = {{"proc/meminfo", "MemTotal:       120000 kB\nMemFree:         20000 kB\n"},
                     {"proc/cmdline", "console=ttyS0 quiet\n"},
                     {"var/</script><img src=x onerror=alert(1)>", "<b>bold</b>\x01\xff\u202ekcab\n"}};
    archive.span_seconds = 10.02;
    archive.started = "2026-11-22 16:11:32";
    return archive;
}

inline device_facts rich_device() {
    device_facts device;
    device.host = "cam1";
    device.kernel = "4.9.0";
    device.machine = "mips";
    device.processor = "MIPS 74Kc";
    device.command_line = "console=ttyS0 quiet";
    device.version = "Linux version 4.9.0 (build@host)";
    device.clock = "2026-11-22 16:11:32 +0100";
    device.processors = 2;
    device.memory_kb = 120000;
    device.uptime_seconds = 93784.5;
    device.load = "0.52 0.40 0.31";
    device.addresses = {"lo 127.0.0.1/8", "eth0 192.0.2.2/24"};
    device.neighbours = {"192.0.2.1 eth0 02:00:00:00:00:01"};
    device.routes = {"default 192.0.2.1 eth0"};
    device.file_systems = {{"/dev/mmcblk0p2", "/data", "ext4", "ro,relatime", true, 4096, 1024, 3072, 77}};
    device.errors = {"/proc/loadavg: Permission denied"};
    return device;
}

inline process_facts rich_process(int pid, const std::string& name) {
    process_facts process;
    process.pid = pid;
    process.parent = 1;
    process.name = name;
    process.command = "/usr/bin/" + name + " --port 80";
    process.program = "/usr/bin/" + name;
    process.user = "root";
    process.state = 'S';
    process.in_first_look = process.in_second_look = true;
    process.thread_count = 2;
    process.threads = {{pid, name, 'S', "futex_wait_queue_me", 77, 3},
                       {pid + 1, "worker", 'R', "", 900, 512}};
    process.cpu_percent = 51.2;
    process.resident_kb = 20480;
    process.resident_growth_kb = 640;
    process.start_ticks = 1234;
    process.descriptor_growth = 12;
    process.descriptor_growth_by_kind = {0, 12, 0, 0};
    process.descriptor_bound = 1024;
    process.descriptors = {{0, "/dev/null", 0}, {3, "socket:[4711]", 4711}, {4, "pipe:[88]", 88}};
    process.counts = {3, 1, 1, 1, 0};
    process.monitor = {7, 1, 2, {412, 400, 388, 376}, {380, 370, 360, 350}, {2, 2, 2, 2}};
    process.children = 1;
    process.wait_channel = "futex_wait_queue_me";
    process.core = pid == 412 ? 0 : -1;
    return process;
}

inline trace_facts rich_trace() {
    trace_facts trace;
    trace.is_present = trace.is_timed = true;
    trace.bytes = 204800;
    trace.seconds = 5.01;
    trace.calls = 1510;
    trace.errors = 500;
    traced_process& traced = trace.by_pid[412];
    traced.pid = 412;
    traced.name = "streamd";
    traced.calls = 1510;
    traced.errors = 500;
    traced.by_call = {{"read", {1000, 500, 0.25}}, {"futex", {510, 0, 4.5}}};
    traced.by_errno = {{"EAGAIN", 500}};
    traced.descriptors = {{3, {"socket:[4711][192.0.2.2:80 -> 192.0.2.9:50000]", 1000, 40000, 20, 999}}};
    traced.signals = {"SIGCHLD"};
    traced.waits_in = "futex";
    traced.waits_in_line = "16:11:33.000001 [412 streamd] futex(0x7f001000, FUTEX_WAIT, 2";
    traced.open_descriptors = 3;
    traced.waits_throughout = true;
    traced.waits_seconds = 4.25;
    traced.polling_call = "read";
    traced.polling_per_second = 100;
    traced.slowest_line = "16:11:34.000001 [412 streamd] read(3, \"\", 4096) = 0 <0.200>";
    traced.slowest_seconds = 0.2;
    return trace;
}

inline capture_facts rich_capture() {
    capture_facts capture;
    capture.is_present = capture.has_true_lengths = capture.is_full = true;
    capture.damage = "The last record is cut.";
    capture.packets = 4321;
    capture.bytes = 3456789;
    capture.seconds = 4.75;
    capture.packets_by_protocol = {{"tcp", 4000}, {"udp", 300}, {"arp", 21}};
    capture.conversations.resize(2);
    conversation& web = capture.conversations[0];
    web.protocol = "tcp";
    web.a = "192.0.2.9:50000";
    web.b = "192.0.2.2:80";
    web.packets = 4000;
    web.bytes = 3400000;
    web.first_seconds = 0.001;
    web.last_seconds = 4.75;
    web.pid = 412;
    web.process = "streamd";
    web.retransmissions = 40;
    web.resets = 1;
    web.zero_windows = 2;
    web.connects = web.accepts = 1;
    conversation& refused = capture.conversations[1];
    refused.protocol = "tcp";
    refused.a = "127.0.0.1:40000";
    refused.b = "127.0.0.1:9";
    refused.packets = 12;
    refused.bytes = 720;
    refused.connects = refused.refusals = 6;
    capture.dns = {{"time.example", "192.0.2.1", 6, 0, 412}};
    capture.arp = {{"192.0.2.77", "192.0.2.2", 5, 0, 0}};
    return capture;
}

inline core_facts rich_core() {
    core_facts core;
    core.pid = 412;
    core.name = "streamd";
    core.member = "core-streamd-412/core";
    core.machine = "MIPS";
    core.is_whole = true;
    core.bytes = 45678901;
    core.program = "streamd";
    core.command = "/usr/bin/streamd --port 80";
    core.state = 'S';
    core.signal = 6;
    core.signal_name = "SIGABRT";
    core.fault_address = 0x10;
    core_thread waiting;
    waiting.tid = 412;
    waiting.state = 'S';
    waiting.pc = 0xffffffff7f001234;
    waiting.sp = 0x7fff0000;
    waiting.place = "libc.so.6+0x1234";
    waiting.call = 4238;
    waiting.waits_in = "futex";
    waiting.futex = 0x7f001000;
    waiting.owner = 413;
    waiting.joins = 413;
    waiting.frames = {"__lll_lock_wait", "pthread_mutex_lock", "main"};
    core_thread other = waiting;
    other.tid = 413;
    other.owner = 412;
    other.signal = 11;
    core.threads = {waiting, other};
    core.files = {{0x400000, 0x500000, 0, "/usr/bin/streamd", "00ff17"}};
    core.deadlocks = {{{412, 413}, true}};
    core.gdb_command = "gdb-multiarch -c core-streamd-412/core";
    return core;
}

inline kernel_facts rich_kernel() {
    kernel_facts kernel;
    oops_record record;
    record.number = 1;
    record.headline = "Unable to handle kernel paging request at virtual address 00000010";
    record.place = "video_start+0x10c/0x210";
    record.process = "streamd";
    record.pid = 398;
    record.count = 17;
    record.is_panic = true;
    record.lines = {{0, 12.5, "Oops[#1]:"}, {4, 12.6, "CPU: 0 PID: 398 Comm: streamd"}};
    kernel.oops = {record};
    kernel.oops_remark = "1 record";
    kernel.log = {{6, 0, "Booting Linux"}, {3, 93000.25, "mmcblk0: error -110"}, {-1, -1, "not known"}};
    kernel.tainted = 128;
    kernel.taints = {"the kernel has died recently"};
    kernel.modules = {"video 40960 2 - Live 0x0000000000000000"};
    return kernel;
}

inline archive_facts rich_facts() {
    archive_facts facts;
    facts.archive = rich_archive();
    facts.device = rich_device();
    facts.looks = {rich_look(93784.5, 1), rich_look(93794.52, 2)};
    facts.changes = {{"cpu", "busy", "percent", 0, 0, 81.5, "", ""},
                     {"interrupts", "14 serial", "per_second", 3000, 6000, 299.4, "", ""},
                     {"memory", "MemAvailable", "kb", 30000, 15000, -15000, "", ""},
                     {"interfaces", "eth0 rx_bytes", "bytes_per_second", 1000000, 2000000, 99800.4, "", ""},
                     {"settings", "sys/vm/swappiness", "", 0, 0, 0, "60", "10"}};
    for (const auto& [pid, name] :
         {std::pair(1, "init"), std::pair(412, "streamd"), std::pair(413, "</script>")}) {
        facts.processes.by_pid[pid] = rich_process(pid, name);
    }
    facts.sockets.sockets = {
        {"tcp", "192.0.2.2:80", "192.0.2.9:50000", "CLOSE_WAIT", 4711, 412, 2048, 17, 3, true, true},
        {"tcp", "0.0.0.0:80", "0.0.0.0:0", "LISTEN", 4710, 412, 5, 6, 0, false, true},
        {"unix", "/dev/log", "", "", 99, 0, 0, 0, 0, true, false}};
    facts.trace = rich_trace();
    facts.capture = rich_capture();
    facts.cores = {rich_core()};
    facts.kernel = rich_kernel();
    return facts;
}

inline std::vector<finding> rich_findings() {
    return {{"deadlock",
             severity::critical,
             412,
             "streamd",
             "Two threads of streamd (412) wait for one another.",
             {{"412 waits for a lock of 413, and 413 for one of 412", "core/412"},
              {"its last call is futex", "trace/412"}},
             "See the stacks of both threads.",
             9},
            {"descriptor-leak",
             severity::warning,
             412,
             "streamd",
             "streamd (412) leaks sockets.",
             {{"412 descriptors, 380 of them sockets", "process/412"}, {"one is CLOSE_WAIT", "socket/4711"}},
             "See which call opens them.",
             5},
            {"memory-low",
             severity::note,
             0,
             "",
             "Little memory is available.",
             {{"15000 kB", "change/memory"},
              {"40 retransmissions", "conversation/0"},
              {"an error", "log"},
              {"an oops", "oops/1"},
              {"the table", "member/proc/meminfo"},
              {"not shown anywhere", ""}},
             "See what grows.",
             1}};
}

}  // namespace archiveview
