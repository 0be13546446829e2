// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Light or dark: the system's choice or the reader's, who is asked once for all pages of a server.

const themes = { "": "as the system", light: "light", dark: "dark" };
const setTheme = (theme) => {
  const known = Object.hasOwn(themes, theme ?? "") ? theme ?? "" : "";
  document.documentElement.dataset.theme = known;
  if (byId("theme")) {
    byId("theme-text").textContent = "Colours: " + themes[known];
    byId("theme").title = "Colours: " + themes[known];
  }
};

const offerThemes = () => {
  byId("theme").addEventListener("click", () => {
    const order = Object.keys(themes);
    const next = order[(order.indexOf(document.documentElement.dataset.theme ?? "") + 1) % order.length];
    memory.set("theme", next);
    setTheme(next);
  });
  setTheme(memory.get("theme"));
};
