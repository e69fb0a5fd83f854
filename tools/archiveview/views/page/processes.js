// Processes, joined from looks, cores, descriptor maps, the monitor and the trace.

// Descriptors with the same target are one row; numbers in brackets make no difference.
function descriptorGroups(list) {
    const groups = new Map();
    for (const open of list) {
        const target = (open.target ?? "unknown").replace(/:\[\d+\]/, "");
        const group = groups.get(target) ?? {target, numbers: [], inodes: []};
        group.numbers.push(open.number);
        group.inodes.push(open.inode);
        groups.set(target, group);
    }
    return [...groups.values()].sort((a, b) => b.numbers.length - a.numbers.length);
}

const someNumbers = (numbers) => numbers.slice(0, 12).join(" ") + (numbers.length > 12 ? " …" : "");

function socketLinks(group) {
    const made = document.createDocumentFragment();
    for (const inode of group.inodes.filter(Boolean).slice(0, 8)) {
        made.append(group.target.startsWith("socket") ? link(`socket/${inode}`, String(inode)) : String(inode), " ");
    }
    return made;
}

function descriptorTable(process) {
    return new Table({
        label: "Descriptors", rows: descriptorGroups(process.descriptor_list),
        empty: "The archive has no descriptor map of it.",
        columns: [
            {title: "Target", value: (row) => row.target, wide: true},
            {title: "Count", value: (row) => row.numbers.length, number: true},
            {title: "Numbers", value: (row) => row.numbers[0], show: (row) => someNumbers(row.numbers), wide: true},
            {title: "Inodes", value: (row) => row.inodes[0], show: socketLinks, wide: true},
        ],
    });
}

function threadTable(process) {
    return new Table({
        label: "Threads", rows: process.thread_list, empty: "The archive does not list its threads.",
        columns: [
            {title: "Thread", value: (row) => row.tid, show: (row) => String(row.tid), number: true},
            {title: "Name", value: (row) => row.name},
            {title: "State", value: (row) => row.state},
            {title: "Waits in", value: (row) => row.wait_channel, wide: true},
            {title: "CPU since start", value: (row) => row.ticks, number: true, show: (row) => seconds(row.ticks / 100)},
            {title: "Between the looks", value: (row) => row.ticks_between, number: true,
             show: (row) => (unknown(row.ticks_between) ? "" : seconds(row.ticks_between / 100))},
        ],
    });
}

function looksOf(row) {
    if (row.in_first_look && row.in_second_look) {
        return "both";
    }
    return row.in_first_look ? "first" : row.in_second_look ? "second" : null;
}

function monitorText({descriptors, sockets, pipes, descriptor_score: score, fork_score: forks, children}) {
    const rounds = (name, numbers) => (numbers.length ? `${name} ${numbers.join(" ← ")}` : "");
    const parts = [score ? `descriptor score ${score}` : "", forks ? `fork score ${forks}` : "",
                   children ? counted(children, "child", "children") : "", rounds("descriptors", descriptors),
                   rounds("sockets", sockets), rounds("pipes", pipes)];
    return parts.filter(Boolean).join(", ");
}

function growthText(growth) {
    const grown = ["file", "socket", "pipe", "other"].filter((kind) => growth[kind]);
    return grown.map((kind) => `${kind} ${signed(growth[kind], count)}`).join(", ");
}

function processDetail(process, cores) {
    const core = process.core === null ? null : cores[process.core];
    const kinds = process.descriptors;
    const facts = factList([
        ["Command", process.command && code(process.command)],
        ["Program", process.program && code(process.program)],
        ["Parent", process.parent ? link(`process/${process.parent}`, String(process.parent)) : null],
        ["User", process.user],
        ["Looks", looksOf(process)],
        ["Descriptors growing", growthText(process.descriptor_growth)],
        ["Started", process.start_ticks && `${seconds(process.start_ticks / 100)} after boot`],
        ["Descriptor limit", count(process.descriptor_limit)],
        ["Other descriptors", kinds.other ? count(kinds.other) : null],
        ["Monitor", monitorText(process.monitor)],
        ["System calls", process.calls === null ? null : link(`trace/${process.pid}`, counted(process.calls, "call"))],
        ["Core", core && link(`core/${core.pid}`, core.member)],
    ]);
    return make("div", {}, facts, make("div", {className: "grid"}, threadTable(process).element, descriptorTable(process).element));
}

function buildProcesses({processes, cores}) {
    const columns = [
        {title: "PID", value: (row) => row.pid, show: (row) => String(row.pid), number: true},
        {title: "Name", value: (row) => row.name, show: (row) => (row.kernel_thread ? quiet(`[${row.name}]`) : row.name)},
        {title: "State", value: (row) => row.state},
        {title: "CPU", value: (row) => row.cpu_percent, show: (row) => percent(row.cpu_percent), number: true},
        {title: "Memory", value: (row) => row.resident_kb, show: (row) => memory(row.resident_kb), number: true},
        {title: "Memory growth", value: (row) => row.resident_growth_kb, number: true,
         show: (row) => (row.resident_growth_kb ? signed(row.resident_growth_kb, memory) : "")},
        {title: "Threads", value: (row) => row.threads, number: true},
        {title: "Descriptors", value: (row) => row.descriptors.total, number: true,
         show: (row) => (row.descriptors.total ? count(row.descriptors.total) : "")},
        {title: "Descriptor growth", value: (row) => row.descriptor_growth.total, number: true,
         show: (row) => (row.descriptor_growth.total ? signed(row.descriptor_growth.total, count) : "")},
        ...["file", "socket", "pipe"].map((kind) => ({
            title: `${kind[0].toUpperCase()}${kind.slice(1)}s`, value: (row) => row.descriptors[kind], number: true,
            show: (row) => (row.descriptors[kind] ? count(row.descriptors[kind]) : ""),
        })),
        {title: "Calls", value: (row) => row.calls, number: true},
        {title: "Errors", value: (row) => row.errors, number: true, show: (row) => (row.errors ? count(row.errors) : "")},
        {title: "Waits in", value: (row) => row.waits_in ?? row.wait_channel},
        {title: "Command", value: (row) => row.command, wide: true},
    ];
    const table = new Table({label: "Processes", rows: processes, columns, key: (row) => row.pid,
                             detail: (row) => processDetail(row, cores)});
    return {nodes: [table.element], tables: {processes: table}};
}
