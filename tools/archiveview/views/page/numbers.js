// Formats numbers for people.

const grouped = new Intl.NumberFormat("en-US", {maximumFractionDigits: 2});
const unknown = (number) => number === null || number === undefined;

const count = (number) => (unknown(number) ? "" : grouped.format(number).replace("-", "\u2212"));
const counted = (number, one, many = `${one}s`) => `${count(number)} ${number === 1 ? one : many}`;

function scaled(number, base, units) {
    let unit = 0;
    for (; Math.abs(number) >= base && unit < units.length - 1; unit++) {
        number /= base;
    }
    const digits = unit === 0 || Math.abs(number) >= 100 ? 0 : 1;
    return `${number.toFixed(digits).replace("-", "\u2212")}\u202f${units[unit]}`;
}

const size = (bytes) => (unknown(bytes) ? "" : scaled(bytes, 1000, ["B", "kB", "MB", "GB", "TB"]));
const memory = (kib) => (unknown(kib) ? "" : scaled(kib, 1024, ["KiB", "MiB", "GiB", "TiB"]));
const percent = (number) => (unknown(number) ? "" : `${number.toFixed(1)}\u202f%`);
const signed = (number, format) => (unknown(number) ? "" : number > 0 ? `+${format(number)}` : format(number));

function seconds(number) {
    if (unknown(number)) {
        return "";
    }
    const units = [[1, "s", 1], [1e-3, "ms", 1e3], [0, "µs", 1e6]];
    const [, unit, scale] = number === 0 ? units[0] : units.find(([least]) => number >= least) ?? units[2];
    return `${Number((number * scale).toPrecision(3))}\u202f${unit}`;
}

// A rate with as many digits as are worth reading.
function rate(number) {
    const rounded = Math.abs(number) >= 100 ? Math.round(number) : Number(number.toPrecision(2));
    return `${count(rounded)}/s`;
}
