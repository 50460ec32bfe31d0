// The categories of transactions: code, name, and the colour that stands for it everywhere.
import {h} from "./dom.js";

export const CATEGORIES = [
    {code: 10, key: "normal", name: "Normal"},
    {code: 11, key: "slow", name: "Slow"},
    {code: 12, key: "verySlow", name: "Very slow"},
    {code: 13, key: "error", name: "Error"},
];

const UNKNOWN = {
    key: "none",
    name: "Open"
};

/** By code or by key. */
export function categoryOf(value) {
    return CATEGORIES.find((c) => c.code === value || c.key === value) ?? UNKNOWN;
}

export function badge(value) {
    const category = categoryOf(value);
    return h("span", {class: `badge ${category.key}`}, category.name);
}

/** The colour of a category in the scheme that shows now. */
export function colour(name) {
    return getComputedStyle(document.documentElement).getPropertyValue(`--${name}`).trim();
}
