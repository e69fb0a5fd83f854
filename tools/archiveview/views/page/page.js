// Starts the page.

document.querySelectorAll("[data-scripted]").forEach((element) => { element.hidden = false; });
goTo(location.hash);

// A page cannot wait while it is printed, so all sections but the texts are filled beforehand, when there is time.
async function fillAhead() {
    for (const section of sections.values()) {
        if (section.name !== "texts") {
            await new Promise((resolve) => { (window.requestIdleCallback ?? setTimeout)(resolve); });
            await section.build();
        }
    }
    document.documentElement.dataset.ready = "";
}
fillAhead();

let openedToPrint = [];
addEventListener("beforeprint", () => {
    openedToPrint = [...document.querySelectorAll("main > details:not([open]), details.more:not([open])")];
    openedToPrint.forEach((element) => { element.open = true; });
});
addEventListener("afterprint", () => openedToPrint.forEach((element) => { element.open = false; }));
