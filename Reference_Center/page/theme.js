// The colours are chosen before the first paint; the switch in the page's head keeps the choice.
"use strict";

(() => {
    const key = "center.theme";
    const choices = ["auto", "light", "dark"];

    function kept() {
        try {
            const value = localStorage.getItem(key);
            return choices.includes(value) ? value : "auto";
        } catch {
            return "auto"; // a browser that keeps nothing
        }
    }

    function use(choice) {
        document.documentElement.dataset.theme = choice;
        document.dispatchEvent(new Event("theme"));
    }

    function keep(choice) {
        try {
            localStorage.setItem(key, choice);
        } catch {
            // The choice holds for this visit.
        }
    }

    use(kept());
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => use(kept()));
    addEventListener("storage", (event) => event.key === key && use(kept()));
    document.addEventListener("DOMContentLoaded", () => {
        for (const input of document.querySelectorAll(".themes input")) {
            input.checked = input.value === kept();
            input.addEventListener("change", () => {
                keep(input.value);
                use(input.value);
            });
        }
    });
})();
