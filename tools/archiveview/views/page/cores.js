// Cores of processes.

const stackOf = (thread) => (thread.frames.length ? thread.frames.join("\n") : thread.place ?? thread.pc ?? "unknown");

// Threads with the same stack that wait in the same call are one row.
function threadGroups(threads) {
    const groups = new Map();
    for (const thread of threads) {
        const name = [thread.state, thread.waits_in, thread.futex, thread.owner, thread.joins, stackOf(thread)].join("\n");
        const group = groups.get(name) ?? {...thread, tids: [], stack: stackOf(thread)};
        group.tids.push(thread.tid);
        groups.set(name, group);
    }
    return [...groups.values()].sort((a, b) => b.tids.length - a.tids.length);
}

function lockText(group) {
    if (group.joins) {
        return `the end of thread ${group.joins}`;
    }
    if (!group.futex) {
        return null;
    }
    const owner = group.owner ? `, which ${group.owner}${group.owner_ended ? ", a thread that has ended," : ""} has` : "";
    return `lock ${group.futex}${owner}`;
}

function coreThreads(core) {
    return new Table({
        label: "Threads with the same stack", rows: threadGroups(core.threads), empty: "The core names no thread.",
        note: core.stack_remark ?? "",
        columns: [
            {title: "Count", value: (row) => row.tids.length, number: true},
            {title: "Threads", value: (row) => row.tids[0], show: (row) => someNumbers(row.tids), wide: true},
            {title: "State", value: (row) => row.state},
            {title: "Waits in", value: (row) => row.waits_in},
            {title: "Waits for", value: lockText, wide: true},
            {title: "Stack, innermost first", value: (row) => row.stack,
             show: (row) => make("pre", {className: "stack"}, row.stack)},
        ],
    });
}

function coreFiles(core) {
    return new Table({
        label: "Files", rows: core.files, empty: "The core names no file.",
        columns: [
            {title: "Path", value: (row) => row.path, wide: true},
            {title: "Build id", value: (row) => row.build_id, show: (row) => (row.build_id ? code(row.build_id) : ""), wide: true},
            {title: "Start", value: (row) => row.start, show: (row) => code(row.start ?? "")},
            {title: "End", value: (row) => row.end, show: (row) => code(row.end ?? "")},
        ],
    });
}

function deadlockText({tids, cycle}) {
    const chain = tids.join(" waits for ");
    return cycle ? `Thread ${chain} waits for ${tids[0]}.` : `Thread ${chain}, which has ended.`;
}

function copyButton(text) {
    const button = make("button", {type: "button"}, "Copy");
    button.addEventListener("click", async () => {
        await navigator.clipboard?.writeText(text).catch(() => {});
        button.textContent = "Copied";
    });
    return button;
}

function coreDetail(core) {
    const facts = factList([
        ["Process", processLink(core.pid, core.name)],
        ["Command", core.command && code(core.command)],
        ["Member", code(core.member ?? "")],
        ["Fault at", core.fault_address && core.fault_address !== "0x0" ? code(core.fault_address) : null],
        ["Damage", core.damage && make("span", {className: "warn"}, core.damage)],
        ...core.deadlocks.map((one) => ["Deadlock", make("span", {className: "warn"}, deadlockText(one))]),
        ["Debugger", core.gdb_command && make("span", {className: "copy"}, code(core.gdb_command), copyButton(core.gdb_command))],
    ]);
    return make("div", {}, facts, coreThreads(core).element, coreFiles(core).element);
}

function buildCores({cores}) {
    const table = new Table({
        label: "Cores", rows: cores, key: (row) => row.pid, detail: coreDetail,
        columns: [
            {title: "PID", value: (row) => row.pid, show: (row) => String(row.pid), number: true},
            {title: "Name", value: (row) => row.name},
            {title: "State", value: (row) => row.state},
            {title: "Signal", value: (row) => row.signal_name ?? row.signal,
             show: (row) => (row.signal ? row.signal_name ?? String(row.signal) : "")},
            {title: "Threads", value: (row) => row.threads.length, number: true},
            {title: "Deadlock", value: (row) => row.deadlocks.length,
             show: (row) => (row.deadlocks.length ? make("span", {className: "warn"}, "yes") : "")},
            {title: "Size", value: (row) => row.bytes, show: (row) => size(row.bytes), number: true},
            {title: "Machine", value: (row) => row.machine},
            {title: "Whole", value: (row) => (row.whole ? "yes" : "no"),
             show: (row) => (row.whole ? "yes" : make("span", {className: "warn"}, "no"))},
            {title: "Program", value: (row) => row.command ?? row.program, wide: true},
        ],
    });
    return {nodes: [table.element], tables: {cores: table}};
}
