// Questions to the collector. Every answer is JSON; a fault is an ApiError with words for a reader.

const PATIENCE_MS = 15000;
const MOST_ADDRESS = 7000;  // characters; the collector reads no longer ones

export class ApiError extends Error {
    /** `status` is 0 when the collector did not answer at all. */
    constructor(message, status) {
        super(message);
        this.status = status;
    }
}

async function ask(path, options, signal) {
    const both = new AbortController();
    const end = () => both.abort(signal?.reason);
    const limit = setTimeout(end, PATIENCE_MS);
    signal?.addEventListener("abort", end);
    let reply;
    let body = {};
    try {
        signal?.throwIfAborted();
        reply = await fetch(path, {...options, signal: both.signal, credentials: "same-origin"});
        if (reply.headers.get("content-type")?.startsWith("application/json")) body = await reply.json();
    } catch (error) {
        if (signal?.aborted) throw error;
        throw new ApiError("The collector does not answer.", 0);
    } finally {  // a view's signal lives as long as the view: months of questions leave nothing on it
        clearTimeout(limit);
        signal?.removeEventListener("abort", end);
    }
    if (!reply.ok) throw new ApiError(body.error ?? `The collector answered ${reply.status}.`, reply.status);
    return body;
}

/** GET with parameters; empty ones are left out. */
export async function get(path, params = {}, signal = undefined) {
    const query = new URLSearchParams();
    for (const [key, value] of Object.entries(params))
        if (value !== undefined && value !== null && value !== "") query.set(key, value);
    const text = query.toString();
    if (text.length > MOST_ADDRESS) throw new ApiError("A filter is too long for a question.", 414);
    return ask(path + (text ? "?" + text : ""), {}, signal);
}

export function post(path, body, signal = undefined) {
    const headers = {"Content-Type": "application/json"};
    return ask(path, {method: "POST", headers, body: JSON.stringify(body)}, signal);
}
