// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

const CLOCK_MS = 10000;
const REFETCH_MS = 2000;
const EVENING = 20;  // o'clock

const state = {
  guide: null,
  language: "",
  genre: null,
  kind: "all",
  favourites: new Set(asList(memory.get("favourites")).filter((id) => typeof id === "string")),
  toggleFavourite(channel) {
    if (!this.favourites.delete(channel.id)) {
      this.favourites.add(channel.id);
    }
    memory.set("favourites", Array.from(this.favourites));
    const row = grid.rows.get(grid.channels.indexOf(channel));
    if (row) {
      setPressed(row.element.querySelector(".star"), this.favourites.has(channel.id));
    }
    if (this.kind === "favourites" && !details.box.open) {
      showChannels();
    }
  },
};

const details = new Details(state, (event) => showInGrid(event));
const grid = new Grid(state, (event) => details.open(event));
const search = new Search(state, (event) => details.open(event));

const dayInView = ({ left, right } = { left: grid.leftTime, right: grid.rightTime }) =>
  midnight(Math.max(state.guide.from, Math.min(state.guide.to - 1, left + (right - left) * 0.25)));

const listedChannels = () => state.guide.channels.filter((channel) =>
  state.kind === "all" || (state.kind === "favourites" ? state.favourites.has(channel.id) : channel.kind === state.kind));

const showChannels = (time = undefined) => {
  const channels = listedChannels();
  grid.setChannels(channels, time);
  grid.remark();
  const empty = byId("empty");
  empty.hidden = channels.length > 0;
  const [head, text] = state.kind === "favourites"
    ? ["No favourites yet", "The star beside a channel's name puts it here."]
    : ["No channels", "A scan finds them; collecting the guide then fills this page."];
  empty.replaceChildren(make("strong", "", head), text);
};

const showInGrid = (event) => {
  if (!search.box.hidden) {
    search.input.value = "";
    search.find();
  }
  if (!grid.channels.includes(event.channel)) {
    chooseKind("all");
  }
  grid.scrollToTime(event.shownStart, 0.15);
  grid.focus(grid.channels.indexOf(event.channel), event);
};

// --- Days, kinds, genres, languages

const makeDays = () => {
  const { from, to } = state.guide;
  const buttons = [];
  for (let day = from; day < to; day = midnight(day, 1)) {
    const button = make("button", "", dayName(day));
    button.type = "button";
    button.dataset.day = day;
    button.setAttribute("aria-label", dayName(day) + ", " + shortDate(day));
    buttons.push(button);
  }
  byId("days").replaceChildren(...buttons);
};

const setText = (element, text) => {
  if (element.textContent !== text) {
    element.textContent = text;
  }
};

const markDay = (view) => {
  setText(byId("corner-day"), shortDate(Math.max(view.left, state.guide.from)));
  setText(byId("corner-zone"), offsetText(Math.max(view.left, state.guide.from)));
  const day = String(dayInView(view));
  if (byId("days").dataset.day !== day) {
    byId("days").dataset.day = day;
    for (const button of byId("days").children) {
      setPressed(button, button.dataset.day === day);
    }
    // Later, when the browser has laid out what was changed, so that it need not do so twice.
    requestAnimationFrame(() => setTimeout(() => {
      const days = byId("days");
      const on = days.querySelector("[aria-pressed=true]");
      if (on && days.scrollWidth > days.clientWidth) {
        days.scrollLeft = on.offsetLeft - days.offsetLeft - 40;
      }
    }));
  }
};
grid.onMove = markDay;

const goToDay = (day) => {
  if (day >= state.guide.from && day < state.guide.to) {
    grid.scrollToTime(sameTimeOn(day, grid.leftTime));
  }
};

const chooseKind = (kind) => {
  state.kind = kind;
  for (const button of byId("kinds").children) {
    setPressed(button, button.dataset.kind === kind);
  }
  showChannels();
};

const makeLegend = () => {
  const buttons = GENRES.filter((genre) => state.guide.genres.has(genre)).map((genre) => {
    const button = make("button", "g-" + genre.key);
    button.type = "button";
    button.append(genreIcon(genre), genre.label);
    setPressed(button, state.genre === genre.key);
    button.addEventListener("click", () => {
      state.genre = state.genre === genre.key ? null : genre.key;
      for (const other of byId("legend").children) {
        setPressed(other, other === button && state.genre !== null);
      }
      grid.remark();
    });
    return button;
  });
  byId("legend").replaceChildren(...buttons);
};

const makeLanguages = () => {
  const select = byId("language");
  const names = Array.from(state.guide.languages, (tag) => [tag, languageName(tag)]).sort((a, b) => (a[1] < b[1] ? -1 : 1));
  const wanted = memory.get("language");
  state.language = state.guide.languages.has(wanted) ? wanted : "";
  select.replaceChildren(new Option("As broadcast", ""), ...names.map(([tag, name]) => new Option(name, tag)));
  select.value = state.language;
  byId("language-pick").hidden = names.length < 2;
};

// --- Showing a guide

const notice = (text) => {
  byId("notice").textContent = text;
  byId("notice").hidden = !text;
};

const say = (head, text) => {
  byId("empty").hidden = false;
  byId("empty").replaceChildren(make("strong", "", head), text);
};

const clockText = () => {
  grid.remark();
  details.clock();
  const { guide } = state;
  if (guide && guide.count > 0 && document.documentElement.dataset.kind === "file" && guide.to <= nowSeconds()) {
    notice("This guide ended on " + shortDate(guide.to - 1) + ". 'kelvo epg update' and 'kelvo guide' make a new one.");
  }
};

const firstTime = (guide) => {
  const now = nowSeconds();
  if (now >= guide.from && now < guide.to) {
    return grid.startFor(now);
  }
  const start = guide.channels.reduce((least, channel) => Math.min(least, channel.shown[0]?.start ?? least), guide.to);
  return Math.max(guide.from, start - HOUR / 4);
};

// In steps: each may take as long as the browser can be without us.
const present = async (guide) => {
  await pause();
  // Who looks stays where he is, if there was something to look at and there still is.
  const left = state.guide !== null && state.guide.count > 0 ? grid.leftTime : -1;
  state.guide = guide;
  makeDays();
  makeLegend();
  for (const kind of ["tv", "radio"]) {
    byId("kinds").querySelector(`[data-kind=${kind}]`).hidden = !guide.channels.some((channel) => channel.kind === "radio");
  }
  byId("zone").textContent = byId("help-zone").textContent = zoneText(guide.from, guide.to);
  await pause();
  makeLanguages();
  grid.measure();
  delete byId("days").dataset.day;
  grid.ticks = "";
  await pause();
  showChannels(left >= guide.from && left < guide.to ? left : firstTime(guide));
  clockText();
  if (!search.box.hidden) {
    search.find();
  }
  // For whoever looks from outside: by then rows have been made.
  requestAnimationFrame(() => requestAnimationFrame(() => requestAnimationFrame(() => {
    document.documentElement.dataset.ready = "true";
  })));
};

let reading = null;
const readAgain = () => {
  // One after the other, and none too often: a guide that is being collected changes all the time.
  reading ??= (async () => {
    try {
      await present(await readGuide());
      notice("");
    } catch (error) {
      if (state.guide === null) {
        say("The guide cannot be read", String(error.message));
      } else {
        notice("Not connected: what is shown may be old.");
      }
    }
    setTimeout(() => {
      const again = reading.again;
      reading = null;
      if (again) {
        readAgain();
      }
    }, REFETCH_MS);
  })();
};
const changed = () => {
  if (reading) {
    reading.again = true;
  } else {
    readAgain();
  }
};

const listen = () => {
  const source = new EventSource("changes");
  let lost = false;
  source.addEventListener("guide", changed);
  source.addEventListener("channels", changed);
  source.addEventListener("error", () => {
    lost = true;
    notice("Not connected: what is shown may be old.");
  });
  source.addEventListener("open", () => {
    if (lost) {
      lost = false;
      changed();
    }
  });
};

// --- Wiring

byId("days").addEventListener("click", (click) => {
  const button = click.target.closest("button");
  if (button) {
    goToDay(Number(button.dataset.day));
  }
});
byId("now").addEventListener("click", () => grid.showNow());
byId("evening").addEventListener("click", () => {
  const date = dateOf(dayInView());
  grid.scrollToTime(new Date(date.getFullYear(), date.getMonth(), date.getDate(), EVENING).getTime() / 1000, 0.02);
});
byId("kinds").addEventListener("click", (click) => {
  const button = click.target.closest("button");
  if (button) {
    chooseKind(button.dataset.kind);
  }
});
byId("language").addEventListener("change", () => {
  state.language = byId("language").value;
  memory.set("language", state.language);
  showChannels();
  search.find();
});
byId("print").addEventListener("click", () => window.print());
byId("help").addEventListener("click", () => byId("help-box").showModal());
byId("help-close").addEventListener("click", () => byId("help-box").close());
window.addEventListener("beforeprint", () => {
  if (state.guide) {
    fillPaper(state, grid.channels, dayInView());
  }
});
window.addEventListener("afterprint", () => byId("paper").replaceChildren());
document.addEventListener("keydown", (key) => {
  const typing = key.target.closest("input, select, dialog");
  if (typing || key.ctrlKey || key.altKey || key.metaKey || !state.guide) {
    return;
  }
  const actions = {
    "/": () => search.input.focus(),
    "?": () => byId("help-box").showModal(),
    n: () => grid.showNow(),
    "[": () => goToDay(midnight(dayInView(), -1)),
    "]": () => goToDay(midnight(dayInView(), 1)),
  };
  const action = actions[key.key.toLowerCase()];
  if (action) {
    key.preventDefault();
    action();
  }
});
offerThemes();
say("Reading the guide", "");
readAgain();
setInterval(clockText, CLOCK_MS);
if (document.documentElement.dataset.kind === "live") {
  byId("pages").hidden = false;
  // Who came with the token of the server's URL keeps it.
  const token = new URLSearchParams(location.search).get("token");
  for (const link of byId("pages").children) {
    link.search = token ? "?token=" + encodeURIComponent(token) : "";
  }
  listen();
}
