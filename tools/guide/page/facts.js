// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What is stored of an event besides its texts, as `kelvo epg --show` says it (tools/epg/event_facts.cpp): of the words
// that the documents have of its components, and of its numbers.

const COMPONENT_NAMES = [["video", "Picture"], ["audio", "Sound"], ["subtitles", "Subtitles"], ["teletext", "Teletext"],
  ["sign language", "Sign language"], ["", "Also"]];
const RUNNING = ["", "not running", "starts in a few seconds", "pausing", "running", "off the air"];

const distinct = (texts) => Array.from(new Set(texts.filter(Boolean)));

const spokenName = (code) => {
  const tag = tagOf(code);
  return tag ? languageName(tag) : asText(code).toLowerCase() === "qaa" ? "original" : asText(code);
};

const componentText = (component) => distinct([
  component.kind === "video" ? "" : spokenName(component.language),
  ...["aspect", "quality", "sound", "codec", "role", "text"].map((key) => asText(component[key])),
]).join(", ");

const episodeText = (episode) => {
  const { season, number, of } = episode;
  if (!Number.isInteger(number)) {
    return asText(episode.text);
  }
  return (Number.isInteger(season) ? "season " + season + ", " : "") + "episode " + number +
    (Number.isInteger(of) ? " of " + of : "");
};

// Pairs of a name and a text.
const factsOf = (event, now) => {
  const facts = [["Episode", episodeText(event.episode)]];
  for (const [kind, name] of COMPONENT_NAMES) {
    const those = event.components.filter((component) => asText(component.kind) === kind);
    facts.push([name, distinct(those.map(componentText)).join("; ")]);
  }
  const isOn = event.start <= now && now < event.end;
  facts.push(["Broadcast", [isOn && Number.isInteger(event.running) ? RUNNING[event.running] ?? "" : "", event.scrambled ? "scrambled" : ""].filter(Boolean).join(", ")]);
  return facts.filter(([, text]) => text);
};

// "Movie/Drama: Comedy; Romance", of the genre's name.
const genreText = (event, name) => {
  const details = distinct(event.contents.filter((one) => one.name === name).map((one) => asText(one.detail)));
  return name + (details.length ? ": " + details.join("; ") : "");
};
