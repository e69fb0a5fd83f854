// The capture of packets.

const some = (key) => ({value: (row) => row[key], number: true, show: (row) => (row[key] ? count(row[key]) : "")});

function conversationTable(conversations) {
    return new Table({
        label: "Conversations", rows: conversations.map((talk, index) => ({...talk, index})), key: (row) => row.index,
        empty: "No packets were captured.",
        columns: [
            {title: "Protocol", value: (row) => row.protocol},
            {title: "A, which began", value: (row) => row.a, wide: true},
            {title: "B", value: (row) => row.b, wide: true},
            {title: "Process", value: (row) => row.process ?? row.pid, show: (row) => processLink(row.pid, row.process)},
            {title: "Packets", value: (row) => row.packets, number: true},
            {title: "Bytes", value: (row) => row.bytes, show: (row) => size(row.bytes), number: true},
            {title: "From", value: (row) => row.first_seconds, show: (row) => seconds(row.first_seconds), number: true},
            {title: "To", value: (row) => row.last_seconds, show: (row) => seconds(row.last_seconds), number: true},
            {title: "Sent again", ...some("retransmissions")},
            {title: "Resets", ...some("resets")},
            {title: "Zero windows", ...some("zero_windows")},
            {title: "Connects", ...some("connects")},
            {title: "Accepted", ...some("accepts")},
            {title: "Refused", ...some("refusals")},
        ],
    });
}

function questionTable(label, rows, who) {
    return new Table({
        label, rows, empty: "None were asked.",
        columns: [
            {title: "Asked for", value: (row) => row.name, wide: true},
            {title: who, value: (row) => row.server},
            {title: "Questions", value: (row) => row.questions, number: true},
            {title: "Answers", value: (row) => row.answers, number: true,
             show: (row) => (row.answers ? count(row.answers) : make("span", {className: "warn"}, "none"))},
            {title: "Process", value: (row) => row.process ?? row.pid, show: (row) => processLink(row.pid, row.process)},
        ],
    });
}

function buildCapture({capture}) {
    const tables = {
        conversations: conversationTable(capture.conversations),
        dns: questionTable("Names asked for (DNS)", capture.dns, "Server"),
        arp: questionTable("Neighbours asked for (ARP)", capture.arp, "Asked by"),
    };
    const kinds = Object.entries(capture.packets_by_protocol).sort((a, b) => b[1] - a[1]);
    const facts = factList([
        ["Packets", count(capture.packets)],
        ["Bytes", size(capture.bytes)],
        ["Time", seconds(capture.seconds)],
        ["Protocols", kinds.map(([name, packets]) => `${name} ${count(packets)}`).join(", ")],
        ["End", capture.full ? make("span", {className: "warn"}, "its size was reached before its time") : null],
        ["Damage", capture.damage && make("span", {className: "warn"}, capture.damage)],
    ]);
    const questions = make("div", {className: "grid"}, tables.dns.element, tables.arp.element);
    return {nodes: [facts, tables.conversations.element, questions], tables};
}
