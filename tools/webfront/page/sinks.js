// Where the bytes of a download go.
import {find, make} from "./dom.js";
import {TextView} from "./text_view.js";

const BLOB_PIECE = 4 << 20;        // bytes that are collected before the browser may put them elsewhere

class FileSink {
    static async open(handle) {
        return Object.assign(new FileSink(), {handle, stream: await handle.createWritable()});
    }
    write(bytes) {
        return this.stream.write(bytes);
    }
    async keep(job) {
        await this.stream.close();
        const other = this.handle.name === job.fileName ? "" : ` The daemon calls it ${job.fileName}.`;
        return `It is in ${this.handle.name}.${other}`;
    }
    drop() {
        return this.stream.abort();
    }
}

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
        const link = offer(new Blob(this.#parts, {type: "application/octet-stream"}), job.fileName);
        link.textContent = `Save ${job.fileName} again`;
        job.actions.append(link);
        this.#parts = [];
        return `It was handed to the browser as ${job.fileName}.`;
    }
    drop() {
        this.#parts = [];
    }
}

// The text stays in its view.
const viewSink = {write() {}, keep: () => "", drop() {}};

// Has the browser save a blob; returns the link that did.
export function offer(blob, fileName) {
    const link = make("a", {href: URL.createObjectURL(blob), download: fileName});
    link.click();
    return link;
}

export const canPick = () => typeof window.showSaveFilePicker === "function";

// The sink for a download; null when its user has chosen no file after all.
export async function openSink(kind, fileName) {
    if (kind.view === TextView) {
        return viewSink;
    }
    if (!canPick() || !find("#straight").checked) {
        return new BlobSink();
    }
    try {
        return await FileSink.open(await window.showSaveFilePicker({suggestedName: fileName}));
    } catch (error) {
        if (error.name === "AbortError") {
            return null;
        }
        return new BlobSink();
    }
}
