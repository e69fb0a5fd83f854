// Builds requests from forms, and explains refusals.

// Returns the parameters in a form's fields, except the one named `without`. Skips empty fields, but not hidden ones,
// which are part of the request even without a value.
export function parameters(form, without) {
    const query = new Map();
    for (const [name, value] of new FormData(form)) {
        if (name !== without && (value.trim() !== "" || form.elements[name].type === "hidden")) {
            query.set(name, value.trim());
        }
    }
    return query;
}

export function address(path, query) {
    const encode = (text) => encodeURIComponent(text).replaceAll("%2C", ",");
    const pairs = [...query].map(([name, value]) => (value === "" ? name : `${name}=${encode(value)}`));
    return pairs.length > 0 ? `${path}?${pairs.join("&")}` : path;
}

// Returns a sentence that explains an answer other than 200.
export async function refusal(job, response) {
    const text = await response.text().catch(() => "");
    if (response.headers.get("Content-Type") === "text/plain; charset=utf-8") {
        return `${text.trim()} (${response.status})`;  // the web front's own sentence
    }
    const meanings = {
        400: job.kind.refused?.(job.query) ?? "The daemon does not understand this request",
        500: "The daemon could not do it: it is out of memory or threads, or does not accept these parameters",
        503: "The machine is already making an archive, and makes one at a time; try again when it is done",
    };
    return `${meanings[response.status] ?? "The daemon sent an unexpected answer"} (${response.status}).`;
}
