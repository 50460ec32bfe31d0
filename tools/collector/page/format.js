// Numbers as people read them, with their units.

const whole = new Intl.NumberFormat("en-US", {maximumFractionDigits: 0});
const short = new Intl.NumberFormat("en-US", {notation: "compact", maximumFractionDigits: 1});

const nothing = (n) => n === null || n === undefined || Number.isNaN(n);

export function count(n) {
    if (nothing(n)) return "–";
    return Math.abs(n) < 1e6 ? whole.format(n) : short.format(n);
}

function digits(n) {
    const size = Math.abs(n);
    if (size > 0 && size < 0.1) return n.toPrecision(2);  // rare is not never
    return n.toFixed(size >= 100 || size === 0 ? 0 : size >= 10 ? 1 : 2);
}

export function rate(n, unit = "/s") {
    if (nothing(n)) return "–";
    return `${n >= 1e6 ? short.format(n) : n >= 1000 ? whole.format(n) : digits(n)} ${unit}`;
}

export function ms(n) {
    if (nothing(n)) return "–";
    if (Math.abs(n) < 1000) return (Number.isInteger(n) ? n : digits(n)) + " ms";
    if (Math.abs(n) < 60000) return (n / 1000).toFixed(2) + " s";
    const seconds = Math.round(n / 1000);
    const [minutes, hours] = [Math.floor(seconds / 60), Math.floor(seconds / 3600)];
    if (minutes < 60) return `${minutes} min ${seconds % 60} s`;
    return hours < 48 ? `${hours} h ${minutes % 60} min` :
                        `${count(Math.floor(hours / 24))} d ${hours % 24} h`;
}

/** A part of a whole, 0 to 1. */
export function percent(part) {
    if (nothing(part)) return "–";
    const n = part * 100;
    return (n === 0 || n >= 10 ? n.toFixed(0) : n < 0.1 ? "<0.1" : n.toFixed(1)) + " %";
}

export function bytes(n) {
    if (nothing(n)) return "–";
    let unit = 0;
    for (; n >= 1024 && unit < 4; n /= 1024) unit++;
    return (unit === 0 ? n : n.toFixed(n < 10 ? 1 : 0)) + " " + ["B", "KB", "MB", "GB", "TB"][unit];
}

const two = (n) => String(n).padStart(2, "0");

/** A time of day; with its date when that is not today's. `t` in milliseconds since the epoch. */
export function clock(t, millis = false) {
    if (!t) return "–";
    const d = new Date(t);
    const time = `${two(d.getHours())}:${two(d.getMinutes())}:${two(d.getSeconds())}` +
        (millis ? "." + String(d.getMilliseconds()).padStart(3, "0") : "");
    const today = d.toDateString() === new Date().toDateString();
    return today ? time : `${d.getFullYear()}-${two(d.getMonth() + 1)}-${two(d.getDate())} ${time}`;
}

/** How long ago; both in milliseconds since the epoch. */
export function ago(t, now) {
    if (!t) return "never";
    const s = Math.max(0, Math.round((now - t) / 1000));
    if (s < 60) return s + " s ago";
    if (s < 3600) return Math.floor(s / 60) + " min ago";
    return s < 172800 ? Math.floor(s / 3600) + " h ago" : Math.floor(s / 86400) + " days ago";
}

/** A span of seconds, as a reader calls it. */
export function spanText(seconds) {
    if (seconds < 60) return seconds + " s";
    if (seconds < 3600) return Math.round(seconds / 60) + " min";
    if (seconds < 86400) return Math.round(seconds / 3600) + " h";
    const days = Math.round(seconds / 86400);
    return days === 1 ? "1 day" : days + " days";
}
