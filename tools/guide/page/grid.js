// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The grid of channels and time. Only what is in view, and a little around it, is in the document.

// Widths in rem, below which a cell has no words, only title and symbol, no end of its time, no word for its genre.
const NO_WORDS = 1.8;
const NO_TIMES = 6;
const NO_END = 10.5;
const NO_GENRE_WORD = 15;
const ROWS_A_FRAME = 6;
const ROWS_AHEAD = 3;
// The first letter with a direction is Hebrew, Arabic or the like.
const RIGHT_TO_LEFT = /^[^\p{L}]*[\u0590-\u08FF\uFB1D-\uFDFD\uFE70-\uFEFC]/u;

class Grid {
  constructor(state, open) {
    this.state = state;  // guide, language, genre, favourites, kind
    this.open = open;    // an event was chosen
    this.onMove = () => {};
    this.scroller = byId("guide");
    this.rowsBox = byId("rows");
    this.channels = [];
    this.rows = new Map();  // index: { element, cells: Map(event: element), from, to }
    this.events = new WeakMap();
    this.current = { index: 0, event: null };  // event null: the channel itself
    this.anchor = nowSeconds();
    this.pending = false;
    this.scroller.addEventListener("scroll", () => this.renderSoon(), { passive: true });
    this.scroller.addEventListener("keydown", (key) => this.pressed(key));
    this.rowsBox.addEventListener("click", (click) => this.clicked(click));
    this.rowsBox.addEventListener("focusin", (focus) => this.focused(focus.target));
    new ResizeObserver(() => this.resized()).observe(this.scroller);
  }

  // --- Measures

  measure() {
    const style = getComputedStyle(document.documentElement);
    const rem = parseFloat(style.fontSize);
    const px = (name) => parseFloat(style.getPropertyValue(name)) * rem;
    this.rem = rem;
    this.rowHeight = px("--row");
    this.hourWidth = px("--hour");
    this.side = px("--side");
    this.ruler = px("--ruler");
  }
  x(time) {
    return ((time - this.state.guide.from) / HOUR) * this.hourWidth;
  }
  time(x) {
    return this.state.guide.from + (x / this.hourWidth) * HOUR;
  }
  get width() {
    return Math.max(0, this.scroller.clientWidth - this.side);
  }
  get leftTime() {
    return this.time(this.scroller.scrollLeft);
  }
  get rightTime() {
    return this.time(this.scroller.scrollLeft + this.width);
  }
  get rowsInView() {
    return Math.max(1, Math.floor((this.scroller.clientHeight - this.ruler) / this.rowHeight));
  }

  resized() {
    if (!this.state.guide) {
      return;
    }
    const time = this.leftTime;
    const before = this.hourWidth + "/" + this.rowHeight;
    this.measure();
    if (before !== this.hourWidth + "/" + this.rowHeight && Number.isFinite(time)) {
      this.layOut(time);
    }
    this.renderSoon();
  }

  // --- What is shown

  // Shows these channels, with `time` at the left edge; without one the view stays where it is.
  setChannels(channels, time = undefined) {
    const { index, event } = this.current;
    const channel = this.channels[index];
    this.channels = channels;
    const again = channel ? channels.findIndex((one) => one.row === channel.row) : -1;
    const same = again >= 0 && event ? channels[again].shown.find((one) => one.shownStart === event.shownStart) : null;
    this.current = again >= 0 ? { index: again, event: same ?? null } : { index: 0, event: null };
    this.layOut(time);
  }

  layOut(time = undefined) {
    if (this.rowHeight === undefined) {
      this.measure();
    }
    const focused = this.scroller.contains(document.activeElement);
    this.rows.clear();
    this.rowsBox.replaceChildren();
    const total = this.side + this.x(this.state.guide.to);
    for (const box of [this.rowsBox, byId("ruler")]) {
      box.style.width = total + "px";
    }
    this.rowsBox.style.height = this.channels.length * this.rowHeight + "px";
    const half = this.hourWidth / 2;
    this.rowsBox.style.backgroundImage = "linear-gradient(to right, var(--grid) 1px, transparent 1px)";
    this.rowsBox.style.backgroundSize = half + "px 100%";
    this.rowsBox.style.backgroundPositionX = this.side + "px";
    byId("now-line").style.height = this.channels.length * this.rowHeight + "px";
    this.scroller.setAttribute("aria-rowcount", this.channels.length + 1);
    this.scroller.setAttribute("aria-colcount", "-1");
    this.scroller.classList.toggle("dim", this.state.genre !== null);
    if (time !== undefined) {
      this.scroller.scrollLeft = this.x(time);
    }
    this.render();
    if (focused) {
      this.elementOf(this.current)?.focus({ preventScroll: true });
    }
  }

  renderSoon() {
    if (!this.pending) {
      this.pending = true;
      requestAnimationFrame(() => {
        this.pending = false;
        this.render();
      });
    }
  }

  render() {
    if (!this.state.guide || this.rowHeight === undefined) {
      return;
    }
    // Asked for once, before anything is changed: each question after a change has the browser lay out all anew.
    const top = this.scroller.scrollTop;
    const height = this.scroller.clientHeight - this.ruler;
    const left = this.leftTime;
    const right = this.rightTime;
    const view = { top, height, left, right };
    const first = Math.max(0, Math.floor(top / this.rowHeight) - 2);
    const last = Math.min(this.channels.length - 1, Math.ceil((top + height) / this.rowHeight) + 2);
    this.keepCurrentInView(view);
    for (const [index, row] of this.rows) {
      if ((index < first || index > last) && index !== this.current.index) {
        row.element.remove();
        this.rows.delete(index);
      }
    }
    // What is in view comes first, then what is around it, and no frame has more rows than it can take.
    const { index: own } = this.current;
    let made = this.channels[own] && this.renderRow(own, view, 0) ? 1 : 0;
    for (let index = first; index <= last && made < ROWS_A_FRAME; ++index) {
      made += this.renderRow(index, view, 0) ? 1 : 0;
    }
    for (let index = first; index <= last && made < ROWS_AHEAD; ++index) {
      made += this.renderRow(index, view, 0.5) ? 1 : 0;
    }
    this.renderTicks(view);
    this.onMove(view);
    if (made > 0) {
      this.renderSoon();
    }
  }

  // Where nobody works with the keys, Tab leads to what is in view and not back to what has long been left.
  keepCurrentInView({ top, height, left, right }) {
    if (this.scroller.contains(document.activeElement) || this.channels.length === 0) {
      return;
    }
    const { index, event } = this.current;
    const inView = (index + 1) * this.rowHeight > top && index * this.rowHeight < top + height &&
      event && event.shownEnd > left && event.shownStart < right;
    if (!inView) {
      const row = Math.min(this.channels.length - 1, Math.ceil(top / this.rowHeight));
      const time = Math.max(left, Math.min(nowSeconds(), right));
      this.setCurrent(row, this.state.guide.eventAt(this.channels[row], time) ?? null);
    }
  }

  // Makes the cells of a row that are in view, or not further from it than this part of a screen. True when it did so.
  renderRow(index, { left, right }, part) {
    const channel = this.channels[index];
    let row = this.rows.get(index);
    if (!row) {
      row = { element: this.makeRow(channel, index), cells: new Map(), from: Infinity, to: 0 };
      this.rows.set(index, row);
      this.rowsBox.append(row.element);
    }
    const screen = right - left;
    if (row.from <= Math.max(left - screen * part, this.state.guide.from) &&
        row.to >= Math.min(right + screen * part, this.state.guide.to)) {
      this.fitWords(row, channel, left);
      return false;
    }
    const around = screen * (part + 0.25);
    row.from = left - around;
    row.to = right + around;
    for (const [event, cell] of row.cells) {
      if ((event.shownEnd < row.from || event.shownStart > row.to) && event !== this.current.event) {
        cell.remove();
        row.cells.delete(event);
      }
    }
    const shown = channel.shown;
    const fresh = document.createDocumentFragment();
    for (let i = lowerBound(shown, (event) => event.shownEnd <= row.from); i < shown.length && shown[i].shownStart < row.to; ++i) {
      if (!row.cells.has(shown[i])) {
        fresh.append(this.makeCell(row, shown[i]));
      }
    }
    const { event } = this.current;
    if (index === this.current.index && event && !row.cells.has(event)) {
      fresh.append(this.makeCell(row, event));
    }
    row.element.append(fresh);
    this.fitWords(row, channel, left);
    return true;
  }

  // The words of an event that began left of the view move with the edge, and have only the rest of its width. One cell
  // a row does so: the browser keeps account of each.
  fitWords(row, channel, left) {
    const event = this.state.guide.eventAt(channel, left);
    const cell = event && event.shownStart < left ? row.cells.get(event) : undefined;
    if (row.cut && row.cut !== cell) {
      row.cut.classList.remove("cut");
      row.cut.firstElementChild.style.maxWidth = "";
      row.rest = undefined;
    }
    row.cut = cell?.firstElementChild ? cell : undefined;
    if (row.cut) {
      // In steps, so that not every frame of a scroll has something to lay out.
      const rest = Math.max(0, Math.floor((this.x(event.shownEnd) - this.x(left)) / this.rem - 1.5));
      if (rest !== row.rest) {
        cell.classList.add("cut");
        cell.firstElementChild.style.maxWidth = rest + "rem";
        row.rest = rest;
      }
    }
  }

  makeRow(channel, index) {
    const element = make("div", "row");
    element.setAttribute("role", "row");
    element.setAttribute("aria-rowindex", index + 2);
    element.style.top = index * this.rowHeight + "px";
    element.dataset.index = index;
    const head = make("div", "channel");
    head.setAttribute("role", "rowheader");
    head.setAttribute("aria-colindex", "1");
    const name = make("span", "name");
    const words = make("bdi", "", nameOf(channel, this.state.language));
    name.append(words);
    if (channel.kind === "radio") {
      name.append(make("span", "sort", "Radio"));
    }
    const star = make("button", "star");
    star.type = "button";
    star.tabIndex = this.current.index === index && !this.current.event ? 0 : -1;
    star.setAttribute("aria-label", "Favourite: " + nameOf(channel, this.state.language));
    star.append(icon("i-star"));
    setPressed(star, this.state.favourites.has(channel.id));
    head.append(make("span", "number", channel.number), name, star);
    element.append(head);
    if (channel.shown.length === 0) {
      const cell = make("div", "nothing");
      cell.setAttribute("role", "gridcell");
      cell.setAttribute("aria-colindex", "2");
      cell.append(make("span", "", "No programme information"));
      element.append(cell);
    }
    return element;
  }

  makeCell(row, event) {
    const text = textOf(event, this.state.language);
    const cell = make("div", "event g-" + event.genre.key);
    const from = Math.max(this.state.guide.from, event.shownStart);
    const width = Math.max(2, this.x(event.shownEnd) - this.x(from) - 3);
    cell.style.left = this.side + this.x(from) + 1.5 + "px";
    cell.style.width = width + "px";
    cell.setAttribute("role", "gridcell");
    cell.setAttribute("aria-colindex", event.place + 2);
    cell.tabIndex = event === this.current.event ? 0 : -1;
    const title = text.title || "No title";
    const times = clockRange(event.start, event.end);
    const room = width / this.rem;
    // What is seen is part of what is read out.
    const said = room < NO_END && event.end > event.start ? clock(event.start) + " – " + clock(event.end) : times;
    const label = [title, said, event.genre.label].filter(Boolean).join(", ");
    cell.setAttribute("aria-label", label);
    if (room < NO_END) {
      cell.title = label;
    }
    if (room < NO_WORDS) {
      cell.classList.add("thin");
    } else {
      const words = make("span", "words");
      const head = make("span", RIGHT_TO_LEFT.test(title) ? "title rtl" : "title", title);
      head.dir = "auto";
      if (text.language && text.title) {
        head.lang = text.language;
      }
      const under = make("span", "under");
      const time = room < NO_TIMES && event.genre !== NO_GENRE ? "" : room < NO_END ? clock(event.start) : times;
      under.append(genreIcon(event.genre), time + (event.genre.label && room >= NO_GENRE_WORD ? " · " + event.genre.label : ""));
      words.append(head, document.createElement("br"), under);
      cell.append(words);
    }
    this.mark(cell, event, nowSeconds());
    row.cells.set(event, cell);
    this.events.set(cell, event);
    return cell;
  }

  mark(cell, event, now) {
    cell.classList.toggle("on", event.shownStart <= now && now < Math.min(event.shownEnd, event.end));
    cell.classList.toggle("past", event.shownEnd <= now);
    cell.classList.toggle("chosen", event.genre.key === this.state.genre);
  }

  // The clock has moved, or another genre is brought out.
  remark() {
    const now = nowSeconds();
    for (const row of this.rows.values()) {
      row.cells.forEach((cell, event) => this.mark(cell, event, now));
    }
    this.scroller.classList.toggle("dim", this.state.genre !== null);
    const there = this.state.guide && now >= this.state.guide.from && now < this.state.guide.to;
    byId("now-line").hidden = byId("now-chip").hidden = !there || this.channels.length === 0;
    if (there) {
      byId("now-line").style.left = this.side + this.x(now) + "px";
      byId("now-chip").style.left = this.x(now) + "px";
      byId("now-chip").textContent = clock(now);
    }
    this.clearChip();
  }

  renderTicks(view) {
    const { from, to } = this.state.guide;
    const left = Math.max(from, view.left - HOUR);
    const right = Math.min(to, view.right + HOUR);
    const key = Math.floor(left / (HOUR / 4)) + "-" + Math.floor(right / (HOUR / 4)) + "-" + this.hourWidth;
    if (key === this.ticks) {
      return;
    }
    this.ticks = key;
    const ticks = [];
    // Zones are whole quarters of an hour from UTC.
    for (let time = Math.floor(left / (HOUR / 4)) * (HOUR / 4); time < right; time += HOUR / 4) {
      const date = dateOf(time);
      const minute = date.getMinutes();
      if (time < from || (minute !== 0 && minute !== 30)) {
        continue;
      }
      const tick = make("div", minute === 0 ? "tick" : "tick half");
      if (minute === 0) {
        const changed = offsetMinutes(time) !== offsetMinutes(time - HOUR);
        tick.textContent = (date.getHours() === 0 ? shortDate(time) : fullHour(time)) + (changed ? " " + offsetText(time) : "");
        tick.classList.toggle("day", date.getHours() === 0 || changed);
      }
      tick.style.left = this.x(time) + "px";
      tick.dataset.time = time;
      ticks.push(tick);
    }
    byId("ticks").replaceChildren(...ticks);
    this.clearChip();
  }

  // No hour is half hidden behind the time of day.
  clearChip() {
    const chip = this.x(nowSeconds());
    for (const tick of byId("ticks").children) {
      const x = this.x(Number(tick.dataset.time));
      tick.classList.toggle("hidden", !byId("now-chip").hidden && x < chip + 2 * this.rem && x > chip - 5 * this.rem);
    }
  }

  // --- Moving

  scrollToTime(time, part = 0) {
    this.scroller.scrollLeft = this.x(time) - this.width * part;
    this.render();
  }

  // The time at the left edge when `time` is to be well in view.
  startFor(time) {
    return time - Math.min(0.75, (0.25 * this.width) / this.hourWidth) * HOUR;
  }
  showNow() {
    this.scrollToTime(this.startFor(nowSeconds()));
  }

  elementOf({ index, event }) {
    const row = this.rows.get(index);
    return event ? row?.cells.get(event) : row?.element.querySelector(".star");
  }

  setCurrent(index, event) {
    const before = this.elementOf(this.current);
    if (before) {
      before.tabIndex = -1;
    }
    this.current = { index, event };
    const now = this.elementOf(this.current);
    if (now) {
      now.tabIndex = 0;
    }
  }

  // Focuses an event, or with null the channel itself, and brings it into view.
  focus(index, event) {
    const channel = this.channels[index];
    if (!channel) {
      return;
    }
    this.setCurrent(index, event);
    const top = index * this.rowHeight;
    const height = this.scroller.clientHeight - this.ruler;
    if (top < this.scroller.scrollTop) {
      this.scroller.scrollTop = top;
    } else if (top + this.rowHeight > this.scroller.scrollTop + height) {
      this.scroller.scrollTop = top + this.rowHeight - height;
    }
    if (event) {
      const start = Math.max(this.state.guide.from, event.shownStart);
      const shown = Math.min(event.shownEnd, this.rightTime) - Math.max(start, this.leftTime);
      // Most of it, or an hour of it, is to be seen.
      if (shown < Math.min((event.shownEnd - start) * 0.9, HOUR * 0.75, (this.rightTime - this.leftTime) * 0.6)) {
        this.scroller.scrollLeft = this.x(start) - this.width * 0.15;
      }
    }
    const row = this.rows.get(index);
    if (row) {
      row.from = Infinity;
    }
    this.render();
    const element = this.elementOf(this.current);
    if (element) {
      element.tabIndex = 0;
      element.focus({ preventScroll: true });
    }
  }

  focusNear(index, time) {
    const at = Math.max(0, Math.min(this.channels.length - 1, index));
    const channel = this.channels[at];
    if (channel) {
      this.focus(at, this.state.guide.eventAt(channel, time) ?? channel.shown[channel.shown.length - 1] ?? null);
    }
  }

  focused(target) {
    const event = this.events.get(target);
    const row = target.closest(".row");
    if (row && (event || target.classList.contains("star"))) {
      const index = Number(row.dataset.index);
      if (index !== this.current.index || (event ?? null) !== this.current.event) {
        this.setCurrent(index, event ?? null);
        this.anchor = event ? Math.max(event.shownStart, this.leftTime) : this.leftTime;
      }
    }
  }

  clicked(click) {
    const star = click.target.closest(".star");
    const cell = click.target.closest(".event");
    if (star) {
      this.state.toggleFavourite(this.channels[Number(star.closest(".row").dataset.index)]);
    } else if (cell) {
      const event = this.events.get(cell);
      this.focus(Number(cell.closest(".row").dataset.index), event);
      this.open(event);
    }
  }

  pressed(key) {
    if (key.altKey || key.metaKey || this.channels.length === 0) {
      return;
    }
    const { index, event } = this.current;
    const channel = this.channels[index];
    const day = event ? midnight(event.shownStart) : midnight(this.leftTime);
    const sideways = (next) => {
      if (next) {
        this.anchor = Math.max(next.shownStart, this.state.guide.from);
      }
      this.focus(index, next ?? null);
    };
    const moves = {
      ArrowRight: () => sideways(event ? channel.shown[event.place + 1] ?? event : this.state.guide.eventAt(channel, this.leftTime)),
      ArrowLeft: () => sideways(event ? channel.shown[event.place - 1] : null),
      ArrowDown: () => this.focusNear(index + 1, this.anchor),
      ArrowUp: () => this.focusNear(index - 1, this.anchor),
      PageDown: () => this.focusNear(index + this.rowsInView, this.anchor),
      PageUp: () => this.focusNear(index - this.rowsInView, this.anchor),
      Home: () => (key.ctrlKey ? this.focusNear(0, this.anchor) : sideways(this.state.guide.eventAt(channel, day))),
      End: () => (key.ctrlKey ? this.focusNear(this.channels.length - 1, this.anchor)
                              : sideways(this.state.guide.eventAt(channel, midnight(day, 1) - 1) ?? channel.shown.at(-1))),
      f: () => this.state.toggleFavourite(channel),
    };
    // A channel's star is a button and knows these keys itself.
    if (event) {
      moves.Enter = moves[" "] = () => this.open(event);
    }
    const name = key.key.length === 1 ? key.key.toLowerCase() : key.key;
    if (moves[name] && (!key.ctrlKey || name === "Home" || name === "End")) {
      key.preventDefault();
      moves[name]();
    }
  }
}
