// Links to places: rows and tables in sections.

// The section and the table of each kind of place.
const PLACES = {
    process: ["processes", "processes"], socket: ["sockets", "sockets"], trace: ["trace", "processes"],
    conversation: ["capture", "conversations"], core: ["cores", "cores"], oops: ["kernel", "oops"],
    log: ["kernel", "log"], member: ["texts", "texts"], change: ["changes", null],
};

function placeOf(hash) {
    try {
        const text = decodeURIComponent(hash.slice(1));
        const [kind] = text.split("/", 1);
        return Object.hasOwn(PLACES, kind) ? {kind, name: text.slice(kind.length + 1)} : null;
    } catch {
        return null;
    }
}

// A group of changes, or one row of any.
function revealChange(section, name) {
    const tables = Object.values(section.tables);
    const group = Object.hasOwn(section.tables, name) ? section.tables[name] : null;
    if (group) {
        mark(group.heading);
    }
    return Boolean(group) || tables.some((table) => table.reveal(name));
}

function revealIn(section, kind, name) {
    if (kind === "change") {
        return revealChange(section, name);
    }
    const table = section.tables[PLACES[kind][1]];
    if (table && name === "") {
        mark(table.heading);
        return true;
    }
    return Boolean(table) && table.reveal(name);
}

async function goTo(hash) {
    const place = placeOf(hash);
    const news = document.getElementById("news");
    news.hidden = true;
    if (!place) {
        return;
    }
    const section = sections.get(PLACES[place.kind][0]);
    await section.open();
    if (!revealIn(section, place.kind, place.name)) {
        news.textContent = shown(`The archive does not say more about ${place.kind} ${place.name}.`);
        news.hidden = false;
        section.element.querySelector("summary").scrollIntoView();
    }
}

document.addEventListener("click", (event) => {
    const target = event.target.closest("a[href^='#']");
    if (target && target.hash === location.hash) {
        goTo(target.hash);
    }
});
addEventListener("hashchange", () => goTo(location.hash));
