// The sections of the page, which are filled when they are opened.

const builders = {
    changes: buildChanges, processes: buildProcesses, sockets: buildSockets, trace: buildTrace, capture: buildCapture,
    cores: buildCores, kernel: buildKernel, texts: buildTexts,
};

class Section {
    constructor(element) {
        this.element = element;
        this.name = element.id.replace("section-", "");
        this.needs = element.dataset.needs.split(" ").filter(Boolean);
        this.title = element.querySelector("h2").textContent;
        this.tables = {};
        element.addEventListener("toggle", () => {
            if (element.open) {
                this.build();
            }
        });
    }

    // Fills the section. It is done once.
    build() {
        this.built ??= this.needs.length ? this.fill() : Promise.resolve();
        return this.built;
    }

    async fill() {
        const body = this.element.querySelector(".body");
        try {
            const parts = await Promise.all(this.needs.map(part));
            const data = Object.fromEntries(this.needs.map((name, index) => [name, parts[index]]));
            const {nodes, tables} = builders[this.name](data);
            this.tables = tables;
            body.replaceChildren(...nodes);
        } catch (error) {
            body.replaceChildren(make("p", {className: "remark"}, error.message));
        }
    }

    async open() {
        this.element.open = true;
        await this.build();
    }
}

const sections = new Map([...document.querySelectorAll("details.section")].map((element) => {
    const section = new Section(element);
    return [section.name, section];
}));
