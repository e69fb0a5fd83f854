// Formats numbers for people.

export function size(bytes) {
    const units = ["bytes", "kB", "MB", "GB", "TB"];
    let unit = 0;
    for (; bytes >= 1000 && unit < units.length - 1; unit++) {
        bytes /= 1000;
    }
    return `${unit === 0 || bytes >= 100 ? Math.round(bytes) : bytes.toFixed(1)} ${units[unit]}`;
}

// MM:SS, or H:MM:SS from one hour on.
export function duration(ms) {
    const seconds = Math.floor(ms / 1000);
    const two = (number) => String(number).padStart(2, "0");
    const hours = Math.floor(seconds / 3600);
    return `${hours ? `${hours}:` : ""}${two(Math.floor(seconds / 60) % 60)}:${two(seconds % 60)}`;
}

export const timeOfDay = () => new Date().toLocaleTimeString();
