// Sockets with their owners.

function queueCell({receive_queue_bytes: bytes, waiting_connections: waiting}) {
    return bytes ? size(bytes) : waiting ? counted(waiting, "connection") : "";
}

function socketOwner(row) {
    const none = row.lacks_owner ? make("span", {className: "warn"}, "no owner") : "";
    return processLink(row.pid, row.process) ?? none;
}

function buildSockets({sockets}) {
    const columns = [
        {title: "Protocol", value: (row) => row.protocol},
        {title: "Local", value: (row) => row.local, wide: true},
        {title: "Remote", value: (row) => row.remote, wide: true},
        {title: "State", value: (row) => row.state},
        {title: "Process", value: (row) => row.process ?? row.pid, show: socketOwner},
        {title: "To send", value: (row) => row.send_queue_bytes, number: true,
         show: (row) => (row.send_queue_bytes ? size(row.send_queue_bytes) : "")},
        {title: "To read", value: (row) => row.receive_queue_bytes ?? row.waiting_connections, number: true,
         show: queueCell},
        {title: "Drops", value: (row) => row.drops, number: true, show: (row) => (row.drops ? count(row.drops) : "")},
        {title: "Looks", value: looksOf},
        {title: "Inode", value: (row) => row.inode, show: (row) => (row.inode ? String(row.inode) : ""), number: true},
    ];
    const table = new Table({label: "Sockets", rows: sockets, columns, key: (row) => row.inode});
    return {nodes: [table.element], tables: {sockets: table}};
}
