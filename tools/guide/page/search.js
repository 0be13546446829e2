// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Finds events by words in any of their texts, and lists them in place of the grid.

const HITS_A_PAGE = 60;
const SHORTEST_QUERY = 2;

class Search {
  constructor(state, open) {
    this.state = state;
    this.open = open;
    this.run = 0;
    this.hits = [];
    this.shown = 0;
    this.input = byId("query");
    this.box = byId("results");
    this.events = new WeakMap();
    this.input.addEventListener("input", () => this.find());
    byId("search").addEventListener("submit", (submit) => {
      submit.preventDefault();
      byId("result-list").querySelector("button")?.focus();
    });
    this.input.addEventListener("keydown", (key) => {
      if (key.key === "Escape") {
        key.preventDefault();
        this.clear();
      } else if (key.key === "ArrowDown" && !this.box.hidden) {
        key.preventDefault();
        byId("result-list").querySelector("button")?.focus();
      }
    });
    this.box.addEventListener("keydown", (key) => this.pressed(key));
    byId("result-list").addEventListener("click", (click) => {
      const hit = click.target.closest(".hit");
      if (hit) {
        this.open(this.events.get(hit));
      }
    });
    byId("more").addEventListener("click", () => {
      const next = this.shown;
      this.list();
      byId("result-list").children[next]?.firstElementChild.focus();
    });
  }

  clear() {
    this.input.value = "";
    this.find();
    this.input.focus();
  }

  static foldedText(event) {
    event.folded ??= folded(event.texts.map((text) =>
      [text.title, text.description, text.extended, ...text.items.map((item) => item.join(" "))].join(" ")).join(" "));
    return event.folded;
  }

  async find() {
    const run = ++this.run;
    const words = folded(this.input.value).split(/\s+/).filter(Boolean);
    const wanted = words.join("").length >= SHORTEST_QUERY;
    if (!wanted) {
      this.box.hidden = true;
      byId("guide").inert = false;
      return;
    }
    const slices = new Slices();
    const now = nowSeconds();
    const { guide } = this.state;
    const over = guide.to <= now;  // an old guide: all of it is past
    const hits = [];
    for (const channel of guide.channels) {
      for (const event of channel.events) {
        if ((over || event.end > now) && words.every((word) => Search.foldedText(event).includes(word))) {
          hits.push(event);
        }
        await slices.rest();
        if (run !== this.run) {
          return;  // somebody has typed on
        }
      }
    }
    hits.sort((a, b) => a.start - b.start);
    this.words = words;
    this.hits = hits;
    this.shown = 0;
    byId("result-list").replaceChildren();
    byId("results-head").textContent = hits.length === 0 ? "Nothing to come mentions this"
      : hits.length === 1 ? "1 programme" : hits.length + " programmes";
    this.list();
    this.box.hidden = false;
    this.box.scrollTop = 0;
    byId("guide").inert = true;
  }

  list() {
    const fresh = document.createDocumentFragment();
    for (const event of this.hits.slice(this.shown, this.shown + HITS_A_PAGE)) {
      fresh.append(this.makeHit(event));
    }
    byId("result-list").append(fresh);
    this.shown += HITS_A_PAGE;
    byId("more").hidden = this.shown >= this.hits.length;
  }

  makeHit(event) {
    const { language } = this.state;
    const item = make("li");
    const hit = make("button", "hit g-" + event.genre.key);
    hit.type = "button";
    const when = make("span", "when");
    when.append(make("b", "", dayName(event.start)), clockRange(event.start, event.end));
    const what = make("span", "what");
    what.dir = "auto";
    this.marked(what, titleOf(event, language));
    const where = make("span", "where");
    where.append(genreIcon(event.genre), make("bdi", "", nameOf(event.channel, language)),
                 event.genre.label ? " · " + event.genre.label : "");
    hit.append(when, what, where);
    item.append(hit);
    this.events.set(hit, event);
    return item;
  }

  // Fills `element` with `text`, what was looked for marked in it. Folding changes lengths, so it goes letter by letter.
  marked(element, text) {
    const letters = Array.from(text);
    const small = letters.map(folded);
    const starts = [];
    let whole = "";
    for (const letter of small) {
      starts.push(whole.length);
      whole += letter;
    }
    const inside = new Array(letters.length).fill(false);
    for (const word of this.words) {
      for (let at = whole.indexOf(word); at >= 0; at = whole.indexOf(word, at + word.length)) {
        for (let i = 0; i < letters.length; ++i) {
          inside[i] ||= starts[i] >= at && starts[i] < at + word.length;
        }
      }
    }
    for (let i = 0; i < letters.length;) {
      let end = i;
      while (end < letters.length && inside[end] === inside[i]) {
        ++end;
      }
      const part = letters.slice(i, end).join("");
      element.append(inside[i] ? make("mark", "", part) : part);
      i = end;
    }
  }

  pressed(key) {
    const hits = Array.from(this.box.querySelectorAll(".hit"));
    const at = hits.indexOf(document.activeElement);
    if (key.key === "Escape") {
      key.preventDefault();
      this.clear();
    } else if (at >= 0 && (key.key === "ArrowDown" || key.key === "ArrowUp")) {
      key.preventDefault();
      const next = at + (key.key === "ArrowDown" ? 1 : -1);
      (next < 0 ? this.input : hits[next] ?? hits[at]).focus();
    }
  }
}
