// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Times are seconds since 1970 and shown in the zone of the viewer's browser.

const MINUTE = 60;
const HOUR = 3600;

const nowSeconds = () => Date.now() / 1000;
const dateOf = (seconds) => new Date(seconds * 1000);

// Words are English like the rest of the page; whether hours go to 12 or to 24 is the viewer's habit.
const habit = new Intl.DateTimeFormat(undefined, { hour: "numeric" }).resolvedOptions().hour12 ? "en-US" : "en-GB";
const clockFormat = new Intl.DateTimeFormat(habit, { hour: habit === "en-US" ? "numeric" : "2-digit", minute: "2-digit" });
const dayFormat = new Intl.DateTimeFormat("en-GB", { weekday: "short", day: "numeric" });
const dateFormat = new Intl.DateTimeFormat("en-GB", { weekday: "short", day: "numeric", month: "short" });
const longFormat = new Intl.DateTimeFormat("en-GB", { weekday: "long", day: "numeric", month: "long", year: "numeric" });

const clock = (seconds) => clockFormat.format(dateOf(seconds));
// "5:10 – 6:05 PM": what both have stands once.
const clockRange = (from, to) => {
  if (to <= from) {
    return clock(from);
  }
  const end = clock(to);
  const half = / ?[AP]M$/.exec(end)?.[0];
  const start = clock(from);
  return (half && start.endsWith(half) ? start.slice(0, -half.length) : start) + " – " + end;
};
const fullHour = (seconds) => clock(seconds).replace(habit === "en-US" ? ":00" : /$^/, "");
const shortDate = (seconds) => dateFormat.format(dateOf(seconds)).replace(",", "");

// Midnight of the day that `seconds` lies in, so many days on: days have 23 or 25 hours as well.
const midnight = (seconds, days = 0) => {
  const date = dateOf(seconds);
  return new Date(date.getFullYear(), date.getMonth(), date.getDate() + days).getTime() / 1000;
};

// The time of day of `seconds` on the day that begins at `day`.
const sameTimeOn = (day, seconds) => {
  const date = dateOf(day);
  const time = dateOf(seconds);
  return new Date(date.getFullYear(), date.getMonth(), date.getDate(), time.getHours(), time.getMinutes()).getTime() / 1000;
};

const dayName = (seconds) => {
  const names = [[-1, "Yesterday"], [0, "Today"], [1, "Tomorrow"]];
  const day = midnight(seconds);
  const named = names.find(([days]) => midnight(nowSeconds(), days) === day);
  return named ? named[1] : dayFormat.format(dateOf(seconds)).replace(",", "");
};

const offsetMinutes = (seconds) => -dateOf(seconds).getTimezoneOffset();
const offsetText = (seconds) => {
  const minutes = offsetMinutes(seconds);
  const size = Math.abs(minutes);
  const rest = size % 60 ? ":" + String(size % 60).padStart(2, "0") : "";
  return minutes === 0 ? "UTC" : "UTC" + (minutes < 0 ? "−" : "+") + Math.floor(size / 60) + rest;
};

// What zone the times are of, and when clocks change meanwhile.
const zoneText = (from, to) => {
  const name = new Intl.DateTimeFormat().resolvedOptions().timeZone;
  let text = "Times in your zone: " + (name && name !== "UTC" ? name.replaceAll("_", " ") + ", " : "") + offsetText(from);
  for (let time = from; time < to; time += HOUR) {
    if (offsetMinutes(time) !== offsetMinutes(time + HOUR)) {
      text += ", from " + shortDate(time + HOUR) + " " + offsetText(time + HOUR);
    }
  }
  return text;
};

const lengthText = (seconds) => {
  const minutes = Math.round(seconds / MINUTE);
  const hours = Math.floor(minutes / 60);
  return (hours ? hours + " h " : "") + (minutes % 60 || !hours ? (minutes % 60) + " min" : "");
};
