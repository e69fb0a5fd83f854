// Finds the members of a tar stream while it arrives, in pieces of any size.

const TAR_BLOCK = 512;

export class TarReader {
    #header = new Uint8Array(TAR_BLOCK);
    #filled = 0;
    #skip = 0;
    #ended = false;
    failed = false;
    members = 0;

    // Calls `onMember` with the name of each member.
    constructor(onMember) {
        this.onMember = onMember;
    }

    feed(bytes) {
        while (bytes.length > 0 && !this.failed && !this.#ended) {
            const skipped = Math.min(this.#skip, bytes.length);
            this.#skip -= skipped;
            bytes = bytes.subarray(skipped);
            const taken = bytes.subarray(0, TAR_BLOCK - this.#filled);
            this.#header.set(taken, this.#filled);
            this.#filled += taken.length;
            bytes = bytes.subarray(taken.length);
            if (this.#filled === TAR_BLOCK) {
                this.#filled = 0;
                this.#readHeader();
            }
        }
    }

    // True if the stream may end here: after a member, or after the empty blocks that end an archive.
    get complete() {
        return !this.failed && this.members > 0 && this.#filled === 0 && this.#skip === 0;
    }

    #readHeader() {
        if (this.#header.every((byte) => byte === 0)) {
            this.#ended = true;
            return;
        }
        const text = new TextDecoder();
        const name = text.decode(this.#header.subarray(0, 100)).split("\0", 1)[0];
        const length = parseInt(text.decode(this.#header.subarray(124, 136)), 8);
        if (text.decode(this.#header.subarray(257, 262)) !== "ustar" || !(length >= 0)) {
            this.failed = true;
            return;
        }
        this.members++;
        this.#skip = Math.ceil(length / TAR_BLOCK) * TAR_BLOCK;
        this.onMember(name);
    }
}
