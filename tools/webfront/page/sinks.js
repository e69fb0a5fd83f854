// Where the bytes of a download go. A sink has
//
//   write(bytes)  may return a promise
//   keep(job)     at the end: returns the sentence that says where the bytes are
//   drop()        called instead of keep: discards the bytes
import {find, make} from "./dom.js";

// From this size on, collected bytes become a Blob, which the browser may move from memory to disk.
const BLOB_PIECE = 4 << 20;

// A file that the user has picked.
class FileSink {
    static async open(handle) {
        return Object.assign(new FileSink(), {handle, stream: await handle.createWritable()});
    }

    write(bytes) {
        return this.stream.write(bytes);
    }

    async keep(job) {
        await this.stream.close();
        const other = this.handle.name === job.fileName ? "" : ` The daemon's name for it is ${job.fileName}.`;
        return `Saved as ${this.handle.name}.${other}`;
    }

    drop() {
        return this.stream.abort();
    }
}

// Collects the bytes, and has the browser save them at the end.
class BlobSink {
    #parts = [];
    #loose = 0;

    write(bytes) {
        this.#parts.push(bytes);
        this.#loose += bytes.length;
        if (this.#loose > BLOB_PIECE) {
            this.#parts = [new Blob(this.#parts)];
            this.#loose = 0;
        }
    }

    keep(job) {
        const link = saveBlob(this.take("application/octet-stream"), job.fileName);
        link.textContent = `Save ${job.fileName} again`;
        job.actions.append(link);
        return `Passed to the browser as ${job.fileName}.`;
    }

    take(type) {
        const blob = new Blob(this.#parts, {type});
        this.#parts = [];
        return blob;
    }

    drop() {
        this.#parts = [];
    }
}

// A page, which the browser opens from where the front keeps it: a blob would have this page's policy, which forbids
// the scripts in it.
class PageSink extends BlobSink {
    keep(job) {
        const open = make("a", {href: job.place, target: "_blank", rel: "noopener", className: "open"}, "Open the report");
        open.append(make("span", {className: "unseen"}, " in a new tab"));
        const saved = {href: URL.createObjectURL(this.take("text/html")), download: job.fileName};
        job.actions.append(open, make("a", saved, `Save ${job.fileName}`));
        return "The web front keeps it for 15 minutes.";
    }
}

// For text that stays in its view.
const viewSink = {write() {}, keep: () => "", drop() {}};

// Has the browser save a blob. Returns the link that did; its address holds the blob until it is revoked.
export function saveBlob(blob, fileName) {
    const link = make("a", {href: URL.createObjectURL(blob), download: fileName});
    link.click();
    return link;
}

export const canPickFile = () => typeof window.showSaveFilePicker === "function";

// Returns null when the user closes the file dialog without choosing a file.
export async function openSink(kind, fileName) {
    if (kind.staysInPage) {
        return viewSink;
    }
    if (kind.opens) {
        return new PageSink();
    }
    if (!canPickFile() || !find("#straight").checked) {
        return new BlobSink();
    }
    try {
        return await FileSink.open(await window.showSaveFilePicker({suggestedName: fileName}));
    } catch (error) {
        return error.name === "AbortError" ? null : new BlobSink();
    }
}
