"use strict";
(() => {
    const trace = JSON.parse(document.getElementById("trace").textContent);
    const colors = ["#3b82c4", "#e07b39", "#3fa34d", "#c9485b", "#8e6bbf", "#a0764b", "#d171a8", "#7f8c8d",
        "#a8a32a", "#2aa7b3", "#5a6fd6", "#c26a1b"];
    const graphs = [];

    function element(parent, tag, text, className) {
        const made = parent.appendChild(document.createElement(tag));
        if (text !== undefined) {
            made.textContent = text;
        }
        if (className) {
            made.className = className;
        }
        return made;
    }

    // A number with its unit: sizes in the largest unit of which there is at least one.
    function shown(number, unit) {
        if (number === null || number === undefined || Number.isNaN(number)) {
            return "";
        }
        if (unit !== "KiB") {
            return Number(number.toFixed(2)) + (unit ? "\u202f" + unit : "");
        }
        const units = ["KiB", "MiB", "GiB", "TiB"];
        let step = 0;
        while (Math.abs(number) >= 1024 && step < units.length - 1) {
            number /= 1024;
            step++;
        }
        return Number(number.toFixed(2)) + "\u202f" + units[step];
    }

    // An impossible time is a string.
    function moment(time) {
        return typeof time === "string" ? time : new Date(time).toISOString().replace("T", " ").replace("Z", "");
    }

    function showEverywhere(range) {
        for (const graph of graphs) {
            graph.updateOptions({dateWindow: range});
        }
    }

    function drawEvents(canvas, area, graph) {
        canvas.strokeStyle = "rgba(200, 60, 60, 0.55)";
        canvas.lineWidth = 1;
        for (const [time] of trace.events) {
            const x = graph.toDomXCoord(time);
            if (x >= area.x && x <= area.x + area.w) {
                canvas.beginPath();
                canvas.moveTo(x, area.y);
                canvas.lineTo(x, area.y + area.h);
                canvas.stroke();
            }
        }
    }

    function addLegend(section, plot, graph) {
        const legend = element(section, "div", undefined, "legend");
        const values = [];
        const boxes = [];
        plot.labels.forEach((name, number) => {
            const label = element(legend, "label");
            const box = element(label, "input");
            box.type = "checkbox";
            box.checked = true;
            box.addEventListener("change", () => graph.setVisibility(number, box.checked));
            boxes.push(box);
            element(label, "span", undefined, "swatch").style.background = colors[number % colors.length];
            element(label, "span", name);
            values.push(element(label, "span", "", "value"));
        });
        const all = element(legend, "button", "all / none");
        all.addEventListener("click", () => {
            const on = !boxes.every((box) => box.checked);
            boxes.forEach((box, number) => {
                box.checked = on;
                graph.setVisibility(number, on);
            });
        });
        if (plot.left_out > 0) {
            element(legend, "span", "and " + plot.left_out + " lower ones", "hint");
        }
        return values;
    }

    function addPlot(plot) {
        const section = element(document.getElementById("plots"), "section");
        element(section, "h2", plot.title + (plot.unit && plot.unit !== "KiB" ? ", " + plot.unit : ""));
        const where = element(section, "div", undefined, "plot");
        const hint = element(section, "div", "\u00a0", "hint");
        let values = [];
        const graph = new Dygraph(where, plot.rows.map(([time, ...numbers]) => [new Date(time), ...numbers]), {
            labels: ["time", ...plot.labels.map((name, number) => number + " " + name)],
            colors: plot.labels.map((_, number) => colors[number % colors.length]),
            labelsUTC: true,
            labelsKMG2: plot.unit === "KiB",
            includeZero: true,
            drawPoints: true,
            pointSize: 1.5,
            strokeWidth: 1.5,
            gridLineColor: "rgba(128, 128, 128, 0.25)",
            axisLineColor: "rgba(128, 128, 128, 0.7)",
            xRangePad: 4,
            axes: {
                x: {valueFormatter: (time) => moment(time)},
                y: {axisLabelFormatter: (number) => shown(number, plot.unit), axisLabelWidth: 80},
            },
            underlayCallback: drawEvents,
            zoomCallback: (from, to) => showEverywhere([from, to]),
            highlightCallback: (_, time, points) => {
                hint.textContent = moment(time) + " UTC";
                values.forEach((value) => { value.textContent = ""; });
                for (const point of points) {
                    values[parseInt(point.name, 10)].textContent = shown(point.yval, plot.unit);
                }
            },
            unhighlightCallback: () => {
                hint.textContent = "\u00a0";
                values.forEach((value) => { value.textContent = ""; });
            },
        });
        values = addLegend(section, plot, graph);
        graphs.push(graph);
    }

    function addEvents() {
        if (trace.events.length === 0) {
            return;
        }
        const section = element(document.getElementById("events"), "section");
        element(section, "h2", "Events");
        const table = element(section, "table");
        for (const [time, text] of trace.events) {
            const row = element(table, "tr");
            element(row, "td", moment(time));
            element(row, "td", text);
        }
        if (trace.events_left_out > 0) {
            element(section, "p", "and " + trace.events_left_out + " more", "hint");
        }
    }

    const summary = document.getElementById("summary");
    summary.textContent = trace.samples + (trace.samples === 1 ? " sample. " : " samples. ") +
        "Drag over a plot to zoom in, double-click to zoom out. Times are in UTC. ";
    if (trace.plots.length === 0) {
        summary.textContent += "The trace has no numbers to plot.";
    }
    trace.plots.forEach(addPlot);
    addEvents();
    window.rtraceviewGraphs = graphs;
})();
