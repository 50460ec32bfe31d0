// Elements from plain values. Text always goes in as text, never as markup.

const SVG = "http://www.w3.org/2000/svg";

function fill(node, props, children) {
    for (const [name, value] of Object.entries(props ?? {})) {
        if (value === undefined || value === null || value === false) continue;
        if (name.startsWith("on"))
            node.addEventListener(name.slice(2), value);
        else if (name === "style")
            for (const [key, text] of Object.entries(value)) node.style.setProperty(key, text);
        else if (name === "value" || name === "checked")
            node[name] = value;
        else
            node.setAttribute(name, value === true ? "" : String(value));
    }
    append(node, children);
    return node;
}

function append(node, children) {
    for (const child of children.flat(Infinity))
        if (child !== undefined && child !== null && child !== false) node.append(child);
}

/** h("a", { href, class, onclick }, "text", node, [more]): empty children and props are left out. */
export function h(tag, props, ...children) {
    return fill(document.createElement(tag), props, children);
}

/** The same for SVG. */
export function svg(tag, props, ...children) {
    return fill(document.createElementNS(SVG, tag), props, children);
}

const MOST_SHOWN = 300;  // characters of a text that may be of any length
const SHOWN_FIRST = 240;

/** A text that may be very long, or its beginning. */
export function brief(text) {
    return text.length <= MOST_SHOWN ? text :
                                       text.slice(0, SHOWN_FIRST).replace(/[\uD800-\uDBFF]$/, "") + "…";
}

/** The same with a button for all of it. */
export function folded(text) {
    const begin = brief(text);
    const shown = h("span", {class: "own"}, begin);
    if (begin === text) return shown;
    const button =
        h("button", {type: "button", class: "fold", onclick: () => turn(shown.textContent === begin)});
    function turn(open) {
        shown.textContent = open ? text : begin;
        button.textContent =
            open ? "Show less" : `Show all ${text.length.toLocaleString("en-US")} characters`;
        button.setAttribute("aria-expanded", String(open));
    }
    turn(false);
    return [shown, " ", button];
}

/**
 * Puts the focus on what can take it first in a node, or on the node: where a button was that is gone now.
 */
export function focusIn(node) {
    const first = node?.querySelector("a, button, input, select, textarea") ?? node;
    if (!first) return;
    if (first === node) node.tabIndex = -1;
    first.focus();
}

export function replace(node, ...children) {
    node.replaceChildren();
    append(node, children);
    return node;
}

// Makes `old` like `fresh`.
function settle(old, fresh) {
    if (old.isEqualNode(fresh)) return;
    if (old.nodeName !== fresh.nodeName) return old.replaceWith(fresh);
    if (old.nodeType === Node.TEXT_NODE) {
        old.data = fresh.data;
        return;
    }
    for (const {name} of [...old.attributes])
        if (!fresh.hasAttribute(name)) old.removeAttribute(name);
    for (const {name, value} of fresh.attributes)
        if (name === "style")
            old.style.cssText = value;  // the page's policy refuses it as an attribute
        else if (old.getAttribute(name) !== value)
            old.setAttribute(name, value);
    match(old, fresh);
}

function match(old, fresh) {
    const wanted = [...fresh.childNodes];
    wanted.forEach((child, i) => (old.childNodes[i] ? settle(old.childNodes[i], child) : old.append(child)));
    while (old.childNodes.length > wanted.length) old.lastChild.remove();
}

/**
 * Like replace(), but touches only what differs: what has the focus, or is being selected, stays. For
 * children without listeners.
 */
export function patch(node, ...children) {
    const fresh = document.createDocumentFragment();
    append(fresh, children);
    match(node, fresh);
    return node;
}
