// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The day in view as a list for the printer, made when it is asked for.

const LONGEST_ON_PAPER = 160;

const shortened = (text) => {
  const letters = Array.from(text);
  return letters.length <= LONGEST_ON_PAPER ? text : letters.slice(0, LONGEST_ON_PAPER).join("").trimEnd() + "…";
};

const fillPaper = (state, channels, day) => {
  const end = midnight(day, 1);
  const paper = byId("paper");
  const columns = make("div", "columns");
  for (const channel of channels) {
    const events = channel.shown.filter((event, i, all) => event.shownStart < end && event.shownEnd > day &&
      // One line each: what others interrupt is not said again.
      !(event.whole !== event && all.slice(0, i).some((one) => one.whole === event.whole && one.shownEnd > day)));
    if (events.length === 0) {
      continue;
    }
    const head = make("h2", "", channel.number ? channel.number + "  " : "");
    head.append(make("bdi", "", nameOf(channel, state.language)));
    columns.append(head);
    for (const event of events) {
      const text = textOf(event, state.language);
      const line = make("div", "line");
      const title = make("span");
      const name = make("b", "", text.title || "No title");
      name.dir = "auto";
      title.append(name);
      if (event.genre.label) {
        title.append(make("span", "genre", "  " + event.genre.label));
      }
      line.append(make("span", "", clock(event.start)), title);
      const words = text.description || text.extended;
      if (words) {
        const paragraph = make("p", "", shortened(words));
        paragraph.dir = "auto";
        line.append(paragraph);
      }
      columns.append(line);
    }
  }
  paper.replaceChildren(make("h1", "", longFormat.format(dateOf(day))), make("p", "about", zoneText(day, end)), columns);
};
