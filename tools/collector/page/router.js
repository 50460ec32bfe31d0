// Addresses of the page: "#/transactions?bt=Cart&span=900". Each view has one, so that it can be kept and
// sent on.

export const SPANS = [300, 900, 3600, 21600, 86400, 604800];
const DEFAULT_SPAN = 900;
const LAST_TIME = Date.UTC(9999, 0);  // the fields of a time have four digits for a year
let ahead = 0;                        // ms by which the collector's clock is ahead of this machine's
let counted = null;  // { asked, answered }: a fixed time, and the one that the collector counted for it

/** Tells what the collector's clock shows: times on the page are the collector's. */
export function setNow(collectorMs) {
    const off = collectorMs - Date.now();
    ahead = Math.abs(off) > 2000 ? off : 0;  // less than that is the way of the answer
}

/** What the collector's clock shows, as far as is known. */
export const collectorNow = () => Date.now() + ahead;

/**
 * Tells over which time was counted when that of span() was asked for: transactions of it are listed behind.
 */
export function setCounted(asked, answered) {
    counted = asked.live ? null : {asked, answered};
}

/** { path: ["transactions"], params: URLSearchParams } of the address that shows now. */
export function route() {
    const [path, query = ""] = location.hash.replace(/^#\/?/, "").split("?", 2);
    const parts = path.split("/").map((part) => {
        try {
            return decodeURIComponent(part);
        } catch {
            return part;
        }
    });
    return {path: parts[0] === "" ? ["overview"] : parts, params: new URLSearchParams(query)};
}

/** The time that is looked at: live ones end now, fixed ones stand. Times in milliseconds since the epoch. */
export function span(params = route().params) {
    const from = Number(params.get("from"));
    const to = Number(params.get("to"));
    if (from > 0 && to > from && to < LAST_TIME) return {live: false, from, to, seconds: (to - from) / 1000};
    const wanted = Number(params.get("span"));
    const seconds = SPANS.includes(wanted) ? wanted : DEFAULT_SPAN;
    const now = collectorNow();
    return {live: true, from: now - seconds * 1000, to: now, seconds};
}

// A parameter of the time that is looked at, as a link to that view has it.
function timeOf(path, key, now) {
    const given = now.get(key);
    const same = counted && Number(now.get("from")) === counted.asked.from &&
        Number(now.get("to")) === counted.asked.to;
    return path === "transactions" && given && same ? counted.answered[key] ?? given : given;
}

/** An address that keeps the time that is looked at, unless `params` has one. Empty values are left out. */
export function to(path, params = {}) {
    const query = new URLSearchParams();
    const now = route().params;
    if (!("from" in params || "span" in params))
        for (const key of ["span", "from", "to"])
            if (now.get(key)) query.set(key, timeOf(path, key, now));
    for (const [key, value] of Object.entries(params))
        if (value !== undefined && value !== null && value !== "") query.set(key, value);
    const text = query.toString();
    return "#/" + [path].flat().map(encodeURIComponent).join("/") + (text ? "?" + text : "");
}

/** The address that shows now with some of its parameters changed; null takes one away. */
export function changed(params) {
    const {path, params: all} = route();
    for (const [key, value] of Object.entries(params))
        if (value === null || value === "")
            all.delete(key);
        else
            all.set(key, value);
    const text = all.toString();
    return "#/" + path.map(encodeURIComponent).join("/") + (text ? "?" + text : "");
}

/** Goes to the transactions of a time that was picked on a chart. */
export function pickTime(from, till) {
    location.hash = to("transactions", {from, to: till});
}
