// The kinds of request, by the data-kind of their forms. Each has
//
//   title        returns the request's name, made from its parameters and its path
//   view         a class that shows what arrives; null: only the size is shown
//   ended        text after a complete answer
//   staysInPage  the view keeps the text and can save it; other kinds go into a file
//   live         the view follows the last lines and can be paused
//   endless      runs until it is stopped, and keeps what has arrived by then
//   asking       text until an answer arrives
//   silent       text after the head of the answer, until the first byte
//   refused      returns what a 400 means, from the parameters
//   unanswered   text if the connection ends without an answer
//   opens        the answer is a page, which can be opened and saved; it does not go into a file by itself
//   expected     returns the number of bytes that will arrive, from the parameters
//
// Only the first three are required. A view has feed(bytes), and end(), which may return a verdict on what has arrived:
// {bad, text}.
import {ArchiveView} from "./archive_view.js";
import {nameOf} from "./listings.js";
import {TextView} from "./text_view.js";

// The processes that a request selects. A pid is followed by the name of its process, if the list has it.
function processesOf(query) {
    const words = (query.get("pid") ?? "").split(",").map((word) => word.trim()).filter(Boolean);
    return words.map((word) => (nameOf(word) ? `${word} (${nameOf(word)})` : word)).join(", ") || "all processes";
}

const WAITING = "Waiting for a process to crash. Another browser that starts to wait replaces this one.";

export const KINDS = {
    archive: {
        title: (query, path) => path.slice(1),
        view: ArchiveView,
        ended: "Done.",
    },
    report: {
        title: () => "Report",
        view: null,
        ended: "The report is ready.",
        opens: true,
        asking: "The machine makes an archive, and archiveview reads it meanwhile. This takes fifteen seconds or longer; " +
            "how far it is cannot be known.",
    },
    ps: {
        title: () => "Output of ps",
        view: TextView,
        ended: "Done.",
        staysInPage: true,
    },
    strace: {
        title: (query) => `Trace of ${processesOf(query)}`,
        view: TextView,
        ended: "The trace has ended.",
        staysInPage: true,
        live: true,
        endless: true,
        silent: "Nothing has arrived yet: the processes make no system calls, or another browser's trace is running.",
        refused: (query) => `No running process matches “${query.get("pid") ?? "all"}”`,
    },
    coredump: {
        title: (query) => `Core dump of ${processesOf(query)}`,
        view: null,
        ended: "Done.",
        asking: "Asking the daemon, which dumps one process at a time …",
        refused: (query) => `No process has the pid or name “${query.get("pid")}”`,
    },
    pcapdump: {
        title: (query) => `Capture on ${query.get("interface") ?? "any"}`,
        view: null,
        ended: "Done.",
        endless: true,
        expected: (query) => (query.has("exact") ? 0 : Number(query.get("totalsize") ?? 5120000)),
    },
    rtrace: {
        title: (query) => `Samples of ${query.get("trace") ?? "fast"}`,
        view: null,
        ended: "Done.",
        endless: true,
    },
    listen: {
        title: () => "Next crash",
        view: null,
        ended: "Done.",
        asking: WAITING,
        unanswered: "The wait ended without a dump: another browser replaced this one, or the daemon exited.",
    },
    pop: {
        title: () => "Stored dump",
        view: null,
        ended: "Done.",
        asking: "Waiting for the daemon to look for a stored dump …",
        unanswered: "No dump is stored on the machine.",
    },
    waitcore: {
        title: () => "Next core",
        view: null,
        ended: "Done.",
        asking: WAITING,
        unanswered: "The wait ended without a dump: none is stored, another browser replaced this one, or the daemon " +
            "exited.",
    },
};
