// The lists of processes and interfaces, which the web front makes itself.
import {timeOfDay} from "./numbers.js";

const LIST_TIMEOUT_MS = 15000;

// The last list of processes received, and the time of day when it was received.
export const latest = {processes: [], time: ""};

// `pid` is a string.
export const nameOf = (pid) => latest.processes.find((one) => String(one.pid) === pid)?.name;

async function getJson(path) {
    const response = await fetch(path, {signal: AbortSignal.timeout(LIST_TIMEOUT_MS), cache: "no-store"});
    if (!response.ok) {
        throw new Error((await response.text()).trim());
    }
    return response.json();
}

export async function listProcesses() {
    latest.processes = (await getJson("/webfront/processes")).processes;
    latest.time = timeOfDay();
}

export async function listInterfaces() {
    return (await getJson("/webfront/interfaces")).interfaces;
}
