// The parts of the JSON, unpacked when they are needed.

const unpacked = new Map();

function bytesOf(base64) {
    const text = atob(base64);
    const bytes = new Uint8Array(text.length);
    for (let i = 0; i < text.length; i++) {
        bytes[i] = text.charCodeAt(i);
    }
    return bytes;
}

async function unpackBlock(name) {
    const block = document.querySelector(`script[data-name="${name}"]`);
    if (!block) {
        throw new Error(`The page was written without its part "${name}", which is too large for it.`);
    }
    const stream = new Blob([bytesOf(block.textContent)]).stream().pipeThrough(new DecompressionStream("deflate"));
    return JSON.parse(await new Response(stream).text());
}

// The part of that name.
function part(name) {
    if (!unpacked.has(name)) {
        unpacked.set(name, unpackBlock(name));
    }
    return unpacked.get(name);
}
