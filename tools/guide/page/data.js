// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Channels and events as the page works with them. Whatever is in the documents was sent by somebody: wrong types,
// orders and times are survived.

const DAYS_AROUND = 30;
const LONGEST_WITHOUT_END = 30 * MINUTE;
const LAST_TIME = 250e9;  // some year near 9900, up to which dates have names
const LONGEST = DAYS_AROUND * 24 * HOUR;

const asText = (value) => (typeof value === "string" ? value : "");
const asNumber = (value) => (Number.isFinite(value) ? value : 0);
const asList = (value) => (Array.isArray(value) ? value.filter((one) => one !== null) : []);

// The tag that browsers know a code of three letters by; empty for what no television of ours speaks.
const tagOf = (code) => LANGUAGES.get(asText(code).toLowerCase())?.[0] ?? "";

class Guide {
  constructor() {
    this.channels = [];
    this.byRow = new Map();
    this.languages = new Set();  // tags
    this.genres = new Set();
    this.texts = [];  // those that events name by a number, because several have them
    this.lists = [];  // and whatever else
    this.count = 0;
    this.from = 0;
    this.to = 0;
  }

  addChannel(given) {
    const kind = /radio/i.test(asText(given.type)) ? "radio" : /tv/i.test(asText(given.type)) ? "tv" : "other";
    const channel = {
      row: given.channel,
      // Stays the same when the list is made anew.
      id: given.service_id === undefined
        ? String(given.channel)
        : [given.service_id, given.transport_stream_id, given.original_network_id].join("."),
      number: Number.isInteger(given.lcn) ? String(given.lcn) : "",
      name: asText(given.name) || "Unnamed",
      names: new Map(),
      kind,
      listed: kind !== "other" && given.visible !== false && given.state !== "lost",
      events: [],
      shown: [],
    };
    for (const [code, name] of Object.entries(given.names ?? {})) {
      const tag = tagOf(code);
      if (tag && asText(name)) {
        channel.names.set(tag, name);
      }
    }
    this.channels.push(channel);
    this.byRow.set(channel.row, channel);
  }

  readText(given) {
    const text = {
      language: tagOf(given.language),
      title: asText(given.title),
      description: asText(given.description),
      extended: asText(given.extended),
      items: asList(given.items).map((item) => [asText(item.name), asText(item.text)]),
    };
    if (text.language && text.title) {
      this.languages.add(text.language);
    }
    return text;
  }

  // A block of the documents.
  add(what, given) {
    if (what === "channels") {
      this.addChannel(given);
    } else if (what === "texts") {
      this.texts.push(this.readText(given));
    } else if (what === "lists") {
      this.lists.push(given);
    } else {
      this.addEvent(given);
    }
  }

  addEvent(given) {
    const channel = this.byRow.get(given.channel);
    const start = asNumber(given.start_epoch);
    if (!channel || start <= 0 || start > LAST_TIME) {
      return;
    }
    const length = Math.min(LONGEST, Math.max(0, asNumber(given.duration)));
    const texts = asList(given.texts).map((text) => (typeof text === "number" ? this.texts[text] : this.readText(text)))
      .filter(Boolean);
    const listed = (value) => asList(typeof value === "number" ? this.lists[value] : value);
    const genres = listed(given.genres);
    const genre = genreOf(genres);
    this.genres.add(genre);
    const event = {
      whole: null,  // this one, also in what is shown of it further on
      channel,
      id: given.event_id,
      start,
      end: start + length,
      shownStart: start,
      shownEnd: start + length,
      place: -1,  // among the shown ones of its channel
      genre,
      genres: genres.map(asText),
      contents: listed(given.contents),
      ratings: listed(given.ratings),
      components: listed(given.components),
      episode: given.episode ?? {},
      running: given.running_status,
      scrambled: given.scrambled === true,
      texts,
      folded: undefined,
    };
    event.whole = event;
    channel.events.push(event);
    ++this.count;
  }

  // Orders everything, and decides what stands where in a row: one event at a time.
  async arrange() {
    const slices = new Slices();
    this.channels.sort((a, b) => (Number(a.number || 1e9) - Number(b.number || 1e9)) || a.row - b.row);
    this.channels = this.channels.filter((channel) => channel.listed || channel.events.length > 0);
    const starts = [];
    for (const channel of this.channels) {
      channel.events.sort((a, b) => a.start - b.start || a.end - b.end);
      channel.events.forEach((event) => starts.push(event.start));
      await slices.rest();
    }
    // A wrong date is not to make the page years wide: most events are right.
    const middle = starts.length ? Float64Array.from(starts).sort()[starts.length >> 1] : nowSeconds();
    const last = midnight(middle, DAYS_AROUND);
    const earliest = midnight(middle, -DAYS_AROUND);
    let first = middle;
    for (const channel of this.channels) {
      // What ends today may have begun yesterday, which is no day to show for it.
      const event = channel.events[lowerBound(channel.events, (one) => one.start < earliest)];
      first = event ? Math.min(first, Math.max(event.start, event.end - 1)) : first;
    }
    await slices.rest();
    this.from = midnight(first);
    let end = this.from;
    for (const channel of this.channels) {
      channel.shown = await this.placed(channel.events, last, slices);
      end = Math.max(end, channel.shown.at(-1)?.shownEnd ?? end);
    }
    this.to = midnight(Math.max(end - 1, this.from), 1);
  }

  // What a row shows of `events`: at any time one, of several that are on the one that began last. An event that others
  // interrupt goes on behind them, as a further entry.
  async placed(events, last, slices) {
    const shown = [];
    const on = [];  // those that have begun, the one that began last at the end
    const endless = [];  // and those that say no end: they yield to all that do
    let time = 0;
    const show = (event, end) => {
      const from = time;
      time = end;
      if (time <= this.from) {
        return;
      }
      const before = shown.at(-1);
      if (before?.whole === event && before.shownEnd === from) {
        before.shownEnd = time;
        return;
      }
      const entry = event.place < 0 ? event : { ...event };
      entry.place = shown.length;
      entry.shownStart = from;
      entry.shownEnd = time;
      shown.push(entry);
    };
    const goTo = (moment) => {
      const until = Math.min(moment, last);
      while (time < until && on.length + endless.length > 0) {
        const list = on.length > 0 ? on : endless;
        const event = list.at(-1);
        const end = event.end > event.start ? event.end : event.start + LONGEST_WITHOUT_END;
        if (end > time) {
          show(event, Math.min(end, until));
        }
        if (end <= until) {
          list.pop();
        }
      }
    };
    for (const event of events) {
      goTo(event.start);
      time = event.start;
      (event.end > event.start ? on : endless).push(event);
      await slices.rest();
    }
    goTo(last);
    return shown;
  }

  eventAt(channel, time) {
    const at = lowerBound(channel.shown, (event) => event.shownEnd <= time);
    return channel.shown[at];
  }
}

// What an event says in the language that was chosen, or in the first that it has.
const NO_TEXT = { language: "", title: "", description: "", extended: "", items: [] };
const textOf = (event, language) =>
  (language && event.texts.find((text) => text.language === language && text.title)) ||
  event.texts.find((text) => text.title) || event.texts[0] || NO_TEXT;
const titleOf = (event, language) => textOf(event, language).title || "No title";
const nameOf = (channel, language) => channel.names.get(language) ?? channel.name;

const readDocuments = async (take) => {
  if (document.documentElement.dataset.kind === "live") {
    const fetched = async (name) => {
      const answer = await fetch(name, { cache: "no-cache" });
      if (!answer.ok) {
        throw new Error(name + ": " + answer.status);
      }
      return answer.json();
    };
    const [channels, guide] = await Promise.all([fetched("channels.json"), fetched("guide.json")]);
    await take("channels", asList(channels.channels));
    await take("events", asList(guide.events));
    return;
  }
  for (const block of document.querySelectorAll("script[data-what]")) {
    await take(block.dataset.what, JSON.parse(block.textContent));
  }
};

const readGuide = async () => {
  const guide = new Guide();
  const slices = new Slices();
  await readDocuments(async (what, list) => {
    for (const one of list) {
      guide.add(what, one);
      await slices.rest();
    }
    await slices.rest();
  });
  await guide.arrange();
  return guide;
};
