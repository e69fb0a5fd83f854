// The kinds of request.
//
//   title     what it is called, from its parameters
//   view      shows what comes
//   endless   goes on until it is stopped, and is then kept
//   asking    what is said until an answer comes
//   refused   why a request of this kind is answered 400
//   nothing   why the connection may end without an answer
//   expected  its size in bytes, when that is known
import {ArchiveView} from "./archive_view.js";
import {nameOf} from "./listings.js";
import {TextView} from "./text_view.js";

// The processes that a request names; with their names as well, where the list knows them.
function whose(query) {
    const words = (query.get("pid") ?? "").split(",").map((word) => word.trim()).filter(Boolean);
    return words.map((word) => (nameOf(word) ? `${word} (${nameOf(word)})` : word)).join(", ") || "all processes";
}

const CORE_WAIT = "Waiting for a process to crash. The browser that waits next takes the place.";

export const KINDS = {
    archive: {
        title: (query, path) => path.slice(1),
        view: ArchiveView,
    },
    ps: {
        title: () => "Output of ps",
        view: TextView,
    },
    strace: {
        title: (query) => `Trace of ${whose(query)}`,
        view: TextView,
        live: true,
        endless: true,
        empty: "Nothing has come yet: the processes make no system call, or another browser's trace is under way.",
        refused: (query) => `None of “${query.get("pid") ?? "all"}” is a process that runs`,
    },
    coredump: {
        title: (query) => `Core dump of ${whose(query)}`,
        asking: "Asking the daemon, which dumps one process after the other …",
        refused: (query) => `No process has the pid or the name “${query.get("pid")}”`,
    },
    pcapdump: {
        title: (query) => `Capture on ${query.get("interface") ?? "any"}`,
        expected: (query) => Number(query.get("totalsize") ?? 5120000),
    },
    rtrace: {
        title: (query) => `Samples of ${query.get("trace") ?? "fast"}`,
        endless: true,
    },
    listen: {
        title: () => "Next crash",
        asking: CORE_WAIT,
        nothing: "The wait has ended without a dump: another browser has taken the place, or the daemon has ended.",
    },
    pop: {
        title: () => "Stored dump",
        asking: "Waiting for the daemon to look into its folder of dumps …",
        nothing: "No dump is stored on the machine.",
    },
    waitcore: {
        title: () => "Next core",
        asking: CORE_WAIT,
        nothing: "The wait has ended without a dump: none is stored, another browser has taken the place, or the " +
            "daemon has ended.",
    },
};
