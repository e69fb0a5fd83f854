// What a form asks of the daemon.

// The parameters that a form has been given; empty ones are left out, but for the names that stand alone.
export function parameters(form, without) {
    const query = new Map();
    for (const [name, value] of new FormData(form)) {
        if (name !== without && (value.trim() !== "" || name === "listen" || name === "pop")) {
            query.set(name, value.trim());
        }
    }
    return query;
}

export function address(path, query) {
    const word = (text) => encodeURIComponent(text).replaceAll("%2C", ",");
    const pairs = [...query].map(([name, value]) => (value === "" ? name : `${name}=${word(value)}`));
    return pairs.length > 0 ? `${path}?${pairs.join("&")}` : path;
}

// What an answer that is none of the wanted says.
export async function refusal(job, response) {
    const text = await response.text().catch(() => "");
    if (response.headers.get("Content-Type") === "text/plain; charset=utf-8") {
        return `${text.trim()} (${response.status})`;  // the web front's own sentence
    }
    const said = {
        400: job.kind.refused?.(job.query) ?? "The daemon can't make sense of this request",
        500: "The daemon could not do it: it lacks memory or a thread, or has no use for these parameters",
        503: "The machine is making an archive already, and makes one at a time; try again when that is through",
    };
    return `${said[response.status] ?? "The daemon answered something unexpected"} (${response.status}).`;
}
