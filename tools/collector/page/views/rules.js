// The rules that name transactions: try a request, edit them, see first what an edit would move.
import {get, post} from "../api.js";
import {h, replace} from "../dom.js";
import {count} from "../format.js";
import {to} from "../router.js";

const OUTCOMES = {
    names: "Names it",
    outdone: "Outdone",
    fails: "Does not match",
    mute: "No say"
};

const SENT_WAIT_MS = 15000;  // a service that does not answer for an order is given up after ten seconds

const DRAFT = "rules";

// An edit that was left unsaved, with the digest of the rules that it began with. It outlives the page: a
// login that has run out leads away from it.
let draft = null;

function keepDraft(edit) {
    draft = edit;
    try {
        if (edit)
            sessionStorage.setItem(DRAFT, JSON.stringify(edit));
        else
            sessionStorage.removeItem(DRAFT);
    } catch {
        // Then it stays as long as the page does.
    }
}

function takeDraft() {
    let edit = draft;
    try {
        edit ??= JSON.parse(sessionStorage.getItem(DRAFT));
    } catch {
        // a browser that keeps nothing
    }
    keepDraft(null);
    return edit;
}

const nameOf = (bt) => bt ?? "(excluded)";

function lineRow(number, text, word, title, reason) {
    return h(
        "li", {class: word}, h("span", {class: "number"}, number), h("code", {}, text),
        h("span", {class: "outcome"}, title), h("span", {class: "reason"}, reason));
}

function tried(answer) {
    const verdict = answer.excluded ? "The request is excluded: it becomes no transaction." :
                                      ["The request becomes ", h("b", {}, answer.bt)];
    const shown = answer.lines.filter((line) => line.outcome !== "mute" || line.kind !== "comment");
    return [
        h("p", {class: "result"}, verdict), h("p", {}, answer.why),
        h("ol", {class: "rule-lines"},
          shown.map(
              (line) => lineRow(
                  line.number, line.text, line.outcome, OUTCOMES[line.outcome] ?? line.outcome, line.reason)))
    ];
}

function tryPanel(textNow) {
    const input = (name, props) => h("input", {name, autocomplete: "off", spellcheck: "false", ...props});
    const url = input("url", {required: true, placeholder: "/shop/cart?id=7", class: "long"});
    const method =
        h("select", {name: "method"},
          ["GET", "POST", "PUT", "DELETE", "PATCH", "HEAD", "OPTIONS"].map((m) => h("option", {}, m)));
    const query = input("query", {placeholder: "id=7"});
    const headers =
        h("textarea", {name: "headers", rows: 2, spellcheck: "false", placeholder: "Host: shop.example"});
    const result = h("div", {class: "answer", role: "status"});

    function headerObject() {
        const pairs =
            headers.value.split("\n").map((line) => line.match(/^([^:]+):\s*(.*)$/)).filter(Boolean);
        return Object.fromEntries(pairs.map(([, name, value]) => [name.trim(), value.trim()]));
    }
    async function ask(event) {
        event.preventDefault();
        const body =
            {url: url.value.trim(), method: method.value, query: query.value.trim(), headers: headerObject()};
        const text = textNow();
        if (text !== null) body.text = text;
        try {
            replace(
                result, text !== null && h("p", {class: "note"}, "By the edited rules, which are not saved:"),
                tried(await post("/api/rules/try", body)));
        } catch (error) {
            replace(result, h("p", {class: "bad"}, error.message));
        }
    }
    const labelled = (title, node) => h("label", {class: "field"}, h("span", {}, title), node);
    return h(
        "section", {class: "panel"}, h("h2", {}, "Try a request"),
        h("form", {class: "try", onsubmit: ask}, labelled("Method", method), labelled("URL", url),
          labelled("Query", query), labelled("Headers, one a line", headers),
          h("button", {class: "button main"}, "Which rule names it?")),
        result);
}

function moves(answer) {
    if (answer.looked === 0) return h("p", {}, "No transactions are stored that could move.");
    if (answer.moved === 0)
        return h("p", {class: "result"}, `None of the last ${count(answer.looked)} transactions would move.`);
    const example = (e) => h("li", {}, h("a", {href: to(["transaction", e.id])}, e.url));
    return [
        h("p", {class: "result"}, h("b", {}, count(answer.moved)),
          ` of the last ${count(answer.looked)} transactions would move:`),
        h("ul", {class: "moves"},
          answer.moves.map(
              (m) =>
                  h("li", {}, h("b", {}, count(m.count)), " from ", h("span", {class: "bt"}, nameOf(m.from)),
                    " to ", h("span", {class: "bt"}, nameOf(m.to)),
                    h("ul", {class: "examples"}, m.examples.map(example)))))
    ];
}

function faults(answer) {
    const bad = answer.lines.filter((line) => line.fault);
    return [
        bad.length > 0 &&
            [
                h("h3", {},
                  bad.length === 1 ? "A line without effect" : `${bad.length} lines without effect`),
                h("ol", {class: "rule-lines"},
                  bad.map((line) => lineRow(line.number, line.text, "fault", "Fault", line.fault)))
            ],
        answer.warnings.length > 0 &&
            [
                h("h3", {}, "To be considered"),
                h("ul", {}, answer.warnings.map((w) => h("li", {}, w.line ? `Line ${w.line}: ` : "", w.text)))
            ]
    ];
}

export function rules() {
    const text = h(
        "textarea",
        {class: "editor", rows: 14, spellcheck: "false", "aria-label": "Rules", wrap: "off", readonly: true});
    const preview = h("button", {type: "button", class: "button", onclick: look}, "Preview");
    const save =
        h("button", {type: "button", class: "button main", onclick: keep, disabled: true}, "Save and send");
    const undo = h("button", {type: "button", class: "button", onclick: back, disabled: true}, "Undo edit");
    const state = h("p", {class: "note", role: "status"});
    const result = h("div", {class: "answer"});
    const meaning = h("ol", {class: "rule-lines"});
    let held = null;       // as the collector has them
    let previewed = null;  // the text that was looked at: only that can be saved
    let saving = false;
    let saved = false;  // by the work that runs

    const edited = () => held !== null && text.value !== held.text;
    const lead =
        h("p", {class: "note"},
          "The first lines that apply decide: pattern rules, else custom rules, else the global rule.");
    const node =
        h("div", {class: "view"}, h("h1", {}, "Rules"), tryPanel(() => (edited() ? text.value : null)),
          h("section", {class: "panel"}, h("h2", {}, "Edit"), lead, text,
            h("div", {class: "under"}, preview, save, undo, state), result),
          h("section", {class: "panel"}, h("h2", {}, "What the rules in force mean"), meaning));

    function mark() {
        const can = held?.editable ?? false;
        text.readOnly = held === null;
        undo.disabled = !edited();
        save.disabled = saving || !can || !edited() || previewed !== text.value;
        if (held === null) return;
        state.textContent = !can ?
            held.fault ?? "Edits can be tried, not saved: start vxcollector with --files DIR." :
            !edited()                ? "As they are in force." :
            previewed === text.value ? "Looked at; not saved yet." :
                                       "Edited. Preview it first, then it can be saved.";
    }
    async function guarded(work) {
        saved = false;
        try {
            await work();
        } catch (error) {
            const stale = error.status === 409 ?
                " Somebody changed the rules meanwhile: copy your edit, undo it, and begin with theirs." :
                "";
            replace(
                result, saved && h("p", {class: "result"}, "Saved."),
                h("p", {class: "bad", role: "alert"}, error.message + stale));
        }
        mark();
    }
    function look() {
        return guarded(async () => {
            const asked = text.value;
            const answer = await post("/api/rules/preview", {text: asked});
            previewed = asked;
            replace(
                result, moves(answer), (answer.notes ?? []).map((note) => h("p", {class: "note"}, note)),
                faults(answer));
        });
    }
    function keep() {
        return guarded(async () => {
            saving = true;
            mark();
            let version;
            try {
                ({version} = await post("/api/rules", {text: text.value, digest: held.digest}));
                saved = true;
                replace(result, h("p", {class: "result", role: "status"}, "Saved."));
                await fetchRules();
            } finally {
                saving = false;
            }
            mark();
            await followSent(version);
        });
    }
    // Says who has the rules of that version, until all have or it takes too long.
    async function followSent(version) {
        for (const until = Date.now() + SENT_WAIT_MS;; await new Promise((r) => setTimeout(r, 500))) {
            const running = (await get("/api/status")).instances.filter((i) => i.started);
            const late = running.filter((i) => i.rulesVersion !== version);
            const over = late.length === 0 || Date.now() > until;
            if (!over && held.version === version) continue;
            replace(
                result,
                h("p", {class: late.length ? "bad" : "result", role: "status"},
                  running.length === 0 ?
                      "Saved. No service runs now: each gets these rules when it is started." :
                      late.length === 0 ?
                      "Saved and sent: requests that begin from now on are named by these rules." :
                      `Saved, but not yet taken by ${late.map((i) => i.name).join(", ")}.`));
            return;
        }
    }
    function back() {
        return guarded(async () => {
            await fetchRules();
            text.value = held.text;
            replace(result);
        });
    }
    async function fetchRules(signal) {
        const answer = await get("/api/rules", {}, signal);
        const left = held === null ? takeDraft() : null;
        const begun = left && left.text !== answer.text ? left : answer;
        if (!edited()) text.value = begun.text;
        // A save says which rules the edit began with: when others are in force by now, it is refused.
        held = {...answer, digest: begun.digest};
        lead.textContent = answer.decidingWords;
        replace(
            meaning,
            answer.lines.filter((line) => line.kind !== "comment")
                .map(
                    (line) => lineRow(
                        line.number, line.text, line.fault ? "fault" : "", line.fault ? "Fault" : line.kind,
                        line.fault ?? line.meaning)));
        mark();
    }
    text.addEventListener("input", mark);
    const leave = () => held && keepDraft(edited() ? {text: text.value, digest: held.digest} : null);
    function close() {
        removeEventListener("pagehide", leave);
        leave();
    }
    addEventListener("pagehide", leave);
    return {node, load: fetchRules, refresh: "never", close};
}
