// One search over all sections.

const searchInput = document.getElementById("search");
let openBefore = null;  // the sections that were open before the search

async function searchSection(section, words) {
    await section.build();
    const hits = Object.values(section.tables).map((table) => {
        const found = table.search(words);
        table.element.hidden = words !== "" && found === 0;
        return found;
    }).reduce((sum, one) => sum + one, 0);
    section.element.querySelector(".hits").textContent = words && section.needs.length ? `${count(hits)} found` : "";
    return hits;
}

function rememberOpen(words) {
    const all = [...sections.values()];
    if (words && !openBefore) {
        openBefore = all.filter((section) => section.element.open);
    } else if (!words && openBefore) {
        all.forEach((section) => { section.element.open = openBefore.includes(section); });
        openBefore = null;
    }
}

async function search() {
    const words = searchInput.value.trim().toLowerCase();
    rememberOpen(words);
    let sum = 0;
    for (const section of sections.values()) {
        const hits = await searchSection(section, words);
        if (searchInput.value.trim().toLowerCase() !== words) {
            return;  // a later search is under way
        }
        if (words) {
            section.element.open = hits > 0;
        }
        sum += hits;
    }
    document.getElementById("found").textContent = words ? `${counted(sum, "row")} found` : "";
}

let timer = 0;
searchInput.addEventListener("input", () => {
    clearTimeout(timer);
    timer = setTimeout(search, 200);
});
