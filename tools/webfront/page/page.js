// What the page needs scripts for: downloads that show their progress and can be stopped, the list of processes, and
// traces that can be watched. Its forms and links work without scripts.
import {find, findAll, make} from "./dom.js";
import {prepareForm, prepareSources} from "./forms.js";
import {watchJobs} from "./job.js";
import {listInterfaces} from "./listings.js";
import {prepareList} from "./process_list.js";
import {canPickFile} from "./sinks.js";

async function fillInterfaces() {
    const interfaces = await listInterfaces();
    find("#interfaces").replaceChildren(...["any", ...interfaces].map((value) => make("option", {value})));
}

function explainSaving() {
    find("[data-picker]").hidden = !canPickFile();
    find("#saving-how").textContent = canPickFile()
        ? "If the box below is ticked, they first ask for a file and write into it as the data arrives, so nothing " +
          "accumulates in the browser; the file is complete when the download is. If not, the browser collects the " +
          "data, in memory and in its own files, and saves it at the end."
        : "The browser collects the data, in memory and in its own files, and saves it at the end, because this " +
          "browser does not let a page write into a file. For very large downloads, use the links.";
}

findAll("[data-scripted]").forEach((element) => {
    element.hidden = false;
});
find("#machine").textContent = `Diagnostics from the debug daemon at ${location.host}.`;
explainSaving();
watchJobs();
findAll("form").forEach(prepareForm);
prepareSources();
prepareList();
fillInterfaces().catch(() => {});  // the field accepts any name, listed or not
