// What the page can do with script: downloads that show how they get on and can be stopped, the list of processes,
// a system-call trace to watch. Everything else the page does without.
import {find, findAll, make} from "./dom.js";
import {prepareForm, prepareSources} from "./forms.js";
import {watchJobs} from "./job.js";
import {listInterfaces} from "./listings.js";
import {prepareList} from "./process_list.js";
import {canPick} from "./sinks.js";

async function fillInterfaces() {
    const interfaces = await listInterfaces();
    find("#interfaces").replaceChildren(...["any", ...interfaces].map((value) => make("option", {value})));
}

function explainSaving() {
    find("[data-picker]").hidden = !canPick();
    find("#saving-how").textContent = canPick()
        ? "With the tick below they ask for a file first and write into it as the bytes come, so that nothing " +
          "piles up here; the file is complete when the download is. Without it, the browser collects the bytes, " +
          "in memory and in its own files, and saves them at the end."
        : "The browser collects the bytes, in memory and in its own files, and saves them at the end; this one " +
          "lets no page write into a file. For something very large, links are better.";
}

findAll("[data-scripted]").forEach((element) => {
    element.hidden = false;
});
find("#machine").textContent = `What the debug daemon behind ${location.host} can tell.`;
explainSaving();
watchJobs();
findAll("form").forEach(prepareForm);
prepareSources();
prepareList();
fillInterfaces().catch(() => {});  // the field takes any name anyway
