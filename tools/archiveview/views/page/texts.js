// Small members as text.

const MARKS = 500;

// The text, with each place that contains `words` marked.
function markedText(text, words) {
    const pre = make("pre", {className: "text", tabIndex: 0});
    pre.setAttribute("role", "group");
    pre.setAttribute("aria-label", "Text of the member");
    const lower = text.toLowerCase();
    let from = 0;
    for (let i = 0; words && lower.length === text.length && i < MARKS; i++) {
        const at = lower.indexOf(words, from);
        if (at < 0) {
            break;
        }
        pre.append(shown(text.slice(from, at)), make("mark", {}, text.slice(at, at + words.length)));
        from = at + words.length;
    }
    pre.append(shown(text.slice(from)));
    return pre;
}

// The first line that contains `words`.
function matchingLine(text, words) {
    const at = text.toLowerCase().indexOf(words);
    if (at < 0) {
        return "";
    }
    const start = text.lastIndexOf("\n", at) + 1;
    const end = text.indexOf("\n", at);
    return text.slice(start, end < 0 ? undefined : end).trim().slice(0, 200);
}

function buildTexts({texts}) {
    const rows = texts.map(({name, text}) => ({name: name ?? "", text: text ?? ""}));
    const lowered = rows.map((row) => `${row.name}\n${row.text}`.toLowerCase());
    const index = new Map(rows.map((row, number) => [row, number]));
    let table = null;
    const words = () => table?.searched || table?.own || "";
    table = new Table({
        label: "Members", rows, key: (row) => row.name, text: (row) => lowered[index.get(row)],
        detail: (row) => markedText(row.text, words()),
        columns: [
            {title: "Member", value: (row) => row.name, show: (row) => code(row.name)},
            {title: "Size", value: (row) => row.text.length, show: (row) => size(row.text.length), number: true},
            {title: "Begins with, or matches", value: (row) => row.text.slice(0, 100), wide: true,
             show: (row) => quiet(words() ? matchingLine(row.text, words()) : row.text.slice(0, 200).split("\n", 1)[0])},
        ],
    });
    return {nodes: [table.element], tables: {texts: table}};
}
