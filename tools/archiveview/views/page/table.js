// Tables that sort, filter and unfold their rows. Rows are added in pieces, as the reader scrolls.

const PIECE = 150;
const FILTER_FROM = 15;  // rows of a table that has a filter of its own

function addWords(value, words) {
    if (value !== null && typeof value === "object") {
        Object.values(value).forEach((one) => addWords(one, words));
    } else if (typeof value === "string" || typeof value === "number") {
        words.push(value);
    }
}

function textOf(row) {
    const words = [];
    addWords(row, words);
    return words.join("\n").toLowerCase();
}

// What is not known comes last, in both directions.
function compare(a, b) {
    const [emptyA, emptyB] = [a === null || a === undefined || a === "", b === null || b === undefined || b === ""];
    if (emptyA || emptyB) {
        return [emptyA - emptyB, true];
    }
    return [typeof a === "number" && typeof b === "number" ? a - b : String(a) < String(b) ? -1 : String(a) > String(b) ? 1 : 0,
            false];
}

class Table {
    // `columns`: {title, value(row), show(row), number, wide, words}. `key(row)` names a row for links. `detail(row)`
    // makes what a row unfolds to. `text(row)`: what is searched, in lower case.
    constructor({label, columns, rows, key, detail, text = textOf, empty = "None.", note = ""}) {
        Object.assign(this, {label, columns, rows, key, detail, empty});
        this.textOf = text;
        this.searched = "";
        this.own = "";
        this.sorted = null;
        this.element = make("section", {className: "table"});
        this.heading = make("h3", {tabIndex: -1}, label);
        this.amount = make("span", {className: "quiet amount"});
        this.bar = make("div", {className: "bar"}, this.heading, this.amount, note ? quiet(note) : null);
        this.element.append(this.bar);
        if (rows.length === 0) {
            this.element.append(make("p", {className: "quiet"}, empty));
            return;
        }
        this.addFilter();
        this.addTable();
        this.arrange();
    }

    addFilter() {
        if (this.rows.length >= FILTER_FROM) {
            const input = make("input", {type: "search", className: "filter", placeholder: "Filter", autocomplete: "off",
                                         spellcheck: false});
            input.setAttribute("aria-label", shown(`Filter ${this.label}`));
            input.addEventListener("input", () => {
                this.own = input.value.toLowerCase();
                this.arrange();
            });
            this.bar.append(input);
        }
    }

    addTable() {
        this.heads = this.columns.map((column, index) => {
            const button = make("button", {type: "button"}, column.title);
            button.addEventListener("click", () => this.sortBy(index));
            return make("th", {scope: "col", className: column.number ? "number" : ""}, button);
        });
        this.body = make("tbody");
        const table = make("table", {}, make("thead", {}, make("tr", {}, ...this.heads)), this.body);
        this.more = make("button", {type: "button", className: "more", hidden: true});
        this.more.addEventListener("click", () => this.append(PIECE));
        this.region = make("div", {className: "scroll", tabIndex: 0, role: "group"}, table, this.more);
        this.region.setAttribute("aria-label", shown(this.label));
        this.region.addEventListener("scroll", () => {
            if (this.region.scrollTop + this.region.clientHeight > this.region.scrollHeight - 400) {
                this.append(PIECE);
            }
        }, {passive: true});
        this.element.append(this.region);
    }

    sortBy(index) {
        const again = this.sorted?.index === index;
        const down = again ? !this.sorted.down : Boolean(this.columns[index].number);
        this.sorted = {index, down};
        this.heads.forEach((head, number) => {
            if (number === index) {
                head.setAttribute("aria-sort", down ? "descending" : "ascending");
            } else {
                head.removeAttribute("aria-sort");
            }
        });
        this.arrange();
    }

    matches(index) {
        if (this.searched === "" && this.own === "") {
            return true;
        }
        this.texts ??= [];
        const text = this.texts[index] ??= this.textOf(this.rows[index]);
        return text.includes(this.searched) && text.includes(this.own);
    }

    // Shows the rows that contain `words`. Returns how many there are.
    search(words) {
        if (this.rows.length === 0) {
            return 0;
        }
        if (this.searched !== words) {
            this.searched = words;
            this.arrange();
        }
        return this.order.length;
    }

    // Decides which rows are shown, in which order.
    arrange() {
        this.order = [];
        for (let index = 0; index < this.rows.length; index++) {
            if (this.matches(index)) {
                this.order.push(index);
            }
        }
        if (this.sorted) {
            const values = this.rows.map(this.columns[this.sorted.index].value);
            const sign = this.sorted.down ? -1 : 1;
            this.order.sort((a, b) => {
                const [by, isEmpty] = compare(values[a], values[b]);
                return (isEmpty ? by : sign * by) || a - b;
            });
        }
        this.body.replaceChildren();
        this.added = 0;
        this.append(PIECE);
    }

    append(amount) {
        const end = Math.min(this.order.length, this.added + amount);
        if (end > this.added) {
            const piece = document.createDocumentFragment();
            for (; this.added < end; this.added++) {
                piece.append(this.makeRow(this.rows[this.order[this.added]]));
            }
            this.body.append(piece);
        }
        const left = this.order.length - this.added;
        this.more.hidden = left === 0;
        this.more.textContent = `${count(left)} more`;
        this.amount.textContent = this.order.length === this.rows.length ? count(this.rows.length)
            : `${count(this.order.length)} of ${count(this.rows.length)}`;
    }

    makeRow(row) {
        const cells = this.columns.map((column) => {
            const content = column.show ? column.show(row) : column.number ? count(column.value(row)) : column.value(row);
            const cell = make("td", {}, content);
            cell.className = ["number", "wide", "words"].find((name) => column[name]) ?? "";
            if (column.wide && cell.textContent.length > 40) {
                cell.title = cell.textContent;
            }
            return cell;
        });
        const made = make("tr", {}, ...cells);
        made.row = row;
        if (this.detail) {
            this.addUnfolder(made, cells[0]);
        }
        return made;
    }

    addUnfolder(made, cell) {
        const button = make("button", {type: "button", className: "unfold"}, ...cell.childNodes);
        button.setAttribute("aria-expanded", "false");
        button.addEventListener("click", () => this.unfold(made, !made.unfolded));
        cell.replaceChildren(button);
        made.unfolder = button;
    }

    unfold(made, open) {
        if (Boolean(made.unfolded) === open) {
            return;
        }
        made.unfolder.setAttribute("aria-expanded", String(open));
        if (open) {
            const cell = make("td", {colSpan: this.columns.length}, make("div", {className: "inner"}, this.detail(made.row)));
            made.unfolded = make("tr", {className: "detail"}, cell);
            made.after(made.unfolded);
        } else {
            made.unfolded.remove();
            made.unfolded = null;
        }
    }

    // Marks the row of that key, unfolds it and scrolls to it. Returns false if there is none.
    reveal(key) {
        let index = this.rows.findIndex((row) => this.key && String(this.key(row)) === key);
        if (index < 0) {
            return false;
        }
        if (!this.order.includes(index)) {
            this.searched = this.own = "";
            this.bar.querySelectorAll("input").forEach((input) => { input.value = ""; });
            this.element.hidden = false;
            this.arrange();
        }
        index = this.order.indexOf(index);
        this.append(Math.max(0, index + 20 - this.added));
        const made = [...this.body.children].filter((one) => one.row)[index];
        if (this.detail) {
            this.unfold(made, true);
        }
        mark(made);
        return true;
    }
}

let marked = null;

function mark(element) {
    marked?.classList.remove("target");
    marked = element;
    element.classList.add("target");
    element.tabIndex = -1;
    element.focus({preventScroll: true});
    element.scrollIntoView({block: "center"});
}
