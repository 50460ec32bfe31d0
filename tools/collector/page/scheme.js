// Light or dark: the reader's own choice, or else the system's. Runs before anything is drawn.
(() => {
    const root = document.documentElement;
    const stored = () => {
        try {
            // Forced colours are the reader's choice, too, and go before one made here.
            return matchMedia("(forced-colors: active)").matches ? null : localStorage.getItem("scheme");
        } catch {
            return null;  // a browser that keeps nothing
        }
    };
    const dark = matchMedia("(prefers-color-scheme: dark)");
    function apply() {
        const chosen = stored() ?? (dark.matches ? "dark" : "light");
        root.dataset.scheme = chosen;
        document.dispatchEvent(new Event("schemechange"));
    }
    dark.addEventListener("change", apply);
    window.turnScheme = () => {
        try {
            localStorage.setItem("scheme", root.dataset.scheme === "dark" ? "light" : "dark");
        } catch {
            // Then it stays what the system says.
        }
        apply();
    };
    apply();
})();
