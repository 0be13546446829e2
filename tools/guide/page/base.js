// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later
"use strict";

// The files of this folder are joined into one script, in the order of tools/CMakeLists.txt. Texts off the air get into
// the page by textContent alone.

const byId = (id) => document.getElementById(id);

const make = (name, classes = "", text = undefined) => {
  const element = document.createElement(name);
  if (classes) {
    element.className = classes;
  }
  if (text !== undefined) {
    element.textContent = text;
  }
  return element;
};

const SVG = "http://www.w3.org/2000/svg";
const symbol = (shape) => {
  const svg = document.createElementNS(SVG, "svg");
  svg.setAttribute("class", "icon");
  svg.setAttribute("viewBox", "0 0 16 16");
  svg.setAttribute("aria-hidden", "true");
  svg.append(shape);
  return svg;
};
const icon = (name) => {
  const use = document.createElementNS(SVG, "use");
  use.setAttribute("href", "#" + name);
  return symbol(use);
};

const setPressed = (button, on) => button.setAttribute("aria-pressed", on ? "true" : "false");

// Lets the browser answer, draw and scroll.
const pause = () => new Promise((go) => {
  const channel = new MessageChannel();
  channel.port1.onmessage = () => {
    channel.port1.close();
    go();
  };
  channel.port2.postMessage(0);
});

// Long work is done in slices, with pauses between them: `await slices.rest()` as often as one likes.
class Slices {
  constructor() {
    this.until = performance.now() + Slices.MS;
  }
  async rest() {
    if (performance.now() >= this.until) {
      await pause();
      this.until = performance.now() + Slices.MS;
    }
  }
}
Slices.MS = 8;

// What is remembered where the browser allows it; where not, until the page is closed.
const memory = {
  values: new Map(),
  get(key) {
    try {
      const text = localStorage.getItem("kelvo-guide-" + key);
      if (text !== null) {
        return JSON.parse(text);
      }
    } catch {
      // Forbidden, or not ours: as if nothing had been stored.
    }
    return this.values.get(key);
  },
  set(key, value) {
    this.values.set(key, value);
    try {
      localStorage.setItem("kelvo-guide-" + key, JSON.stringify(value));
    } catch {
      // Full or forbidden; it is kept above.
    }
  },
};

const lowerBound = (list, isBefore) => {
  let low = 0;
  let high = list.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (isBefore(list[middle])) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
};

// For comparing as people do: without case, accents and other marks.
const folded = (text) => text.normalize("NFD").replace(/\p{M}/gu, "").toLowerCase();
