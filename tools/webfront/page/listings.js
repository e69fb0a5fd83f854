// What the front itself lists: processes and interfaces.
import {clock} from "./numbers.js";

const LIST_PATIENCE_MS = 15000;

// The processes as last listed, and when.
export const latest = {processes: [], time: ""};

export const nameOf = (pid) => latest.processes.find((one) => String(one.pid) === pid)?.name;

async function getJson(path) {
    const response = await fetch(path, {signal: AbortSignal.timeout(LIST_PATIENCE_MS), cache: "no-store"});
    if (!response.ok) {
        throw new Error((await response.text()).trim());
    }
    return response.json();
}

export async function listProcesses() {
    latest.processes = (await getJson("/webfront/processes")).processes;
    latest.time = clock();
}

export async function listInterfaces() {
    return (await getJson("/webfront/interfaces")).interfaces;
}
