// Short names for making elements. What an archive says becomes text only, never markup.

// Control characters and marks that change the direction of text are shown, so that they have no effect.
const invisible = /[\u0000-\u0008\u000b-\u001f\u007f-\u009f\u061c\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff]/g;

function shown(text) {
    return String(text).replace(invisible, (one) => {
        const code = one.charCodeAt(0);
        return code < 0x20 ? String.fromCharCode(0x2400 + code) : "\ufffd";
    });
}

function make(name, properties = {}, ...children) {
    const element = Object.assign(document.createElement(name), properties);
    for (const child of children) {
        if (child !== null && child !== undefined) {
            element.append(child instanceof Node ? child : shown(child));
        }
    }
    return element;
}

const quiet = (text) => make("span", {className: "quiet"}, text);
const code = (text) => make("code", {}, text);

function link(place, text) {
    const slash = place.indexOf("/");
    const name = encodeURIComponent(place.slice(slash + 1).toWellFormed?.() ?? place.slice(slash + 1));
    return make("a", {href: `#${place.slice(0, slash + 1)}${name}`}, text);
}

// A process as a link to its row, or nothing.
const processLink = (pid, name) => (pid ? link(`process/${pid}`, name ? `${name} ${pid}` : String(pid)) : null);

// Names and values, without those that are not known.
function factList(facts) {
    const known = facts.filter(([, value]) => value !== null && value !== undefined && value !== "");
    return make("dl", {className: "facts"}, ...known.map(([name, value]) =>
        make("div", {}, make("dt", {}, name), make("dd", {}, value))));
}
