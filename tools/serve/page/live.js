// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The server's own pages: what they show is made by the server alone. This asks for it anew when something has changed,
// and changes the page where the two differ: focus, selection and place stay. It stands in the head, so that the colours
// are right before anything is seen.

const LEAST_MS = 500;  // between two questions
const CLOCK_MS = 10000;  // and without a change: programmes end

// Times are of the zone of whoever looks.
const localise = (root) => {
  for (const time of root.querySelectorAll("time")) {
    const seconds = Date.parse(time.dateTime) / 1000;
    time.textContent = time.dataset.day === undefined ? clock(seconds) : shortDate(seconds) + ", " + clock(seconds);
  }
};

const follow = (shown, fresh) => {
  if (shown.nodeType !== fresh.nodeType || shown.nodeName !== fresh.nodeName) {
    shown.replaceWith(document.importNode(fresh, true));
    return;
  }
  if (shown.nodeType !== Node.ELEMENT_NODE) {
    if (shown.data !== fresh.data) {
      shown.data = fresh.data;
    }
    return;
  }
  for (const { name } of Array.from(shown.attributes)) {
    if (!fresh.hasAttribute(name)) {
      shown.removeAttribute(name);
    }
  }
  for (const { name, value } of fresh.attributes) {
    if (shown.getAttribute(name) !== value) {
      shown.setAttribute(name, value);
    }
  }
  const children = Array.from(shown.childNodes);
  Array.from(fresh.childNodes).forEach((child, i) => {
    if (children[i]) {
      follow(children[i], child);
    } else {
      shown.append(document.importNode(child, true));
    }
  });
  children.slice(fresh.childNodes.length).forEach((child) => child.remove());
};

const say = (text) => {
  if (byId("connection").textContent !== text) {
    byId("connection").textContent = text;
  }
};

let asking = null;
const ask = () => {
  if (asking) {
    asking.again = true;
    return;
  }
  asking = { again: false };
  (async () => {
    try {
      const answer = await fetch(location.href, { cache: "no-store" });
      if (!answer.ok) {
        throw new Error(answer.status);
      }
      const fresh = new DOMParser().parseFromString(await answer.text(), "text/html");
      localise(fresh);
      for (const id of ["live", "state", "action", "lines"]) {
        if (byId(id) && fresh.getElementById(id)) {
          follow(byId(id), fresh.getElementById(id));
        }
      }
      say("");
    } catch {
      say("Not connected: what is shown may be old.");
    }
    setTimeout(() => {
      const { again } = asking;
      asking = null;
      if (again && !document.hidden) {
        ask();
      }
    }, LEAST_MS);
  })();
};
const askWhenSeen = () => {
  if (!document.hidden) {
    ask();
  }
};

const listen = () => {
  const source = new EventSource("changes");
  for (const name of ["channels", "guide", "scan", "signal"]) {
    source.addEventListener(name, askWhenSeen);
  }
  source.addEventListener("error", () => say("Not connected: what is shown may be old."));
  source.addEventListener("open", askWhenSeen);
  document.addEventListener("visibilitychange", askWhenSeen);
  setInterval(askWhenSeen, CLOCK_MS);
};

setTheme(memory.get("theme"));
document.addEventListener("DOMContentLoaded", () => {
  byId("theme").hidden = false;
  offerThemes();
  localise(document);
  listen();
});
