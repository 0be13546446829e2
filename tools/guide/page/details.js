// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// One event in full, in a sheet at the side, on phones from below.

const MOST_REPEATS = 6;

class Details {
  constructor(state, show) {
    this.state = state;
    this.event = null;
    this.box = byId("details");
    const by = (step) => () => {
      const next = this.event.channel.shown[this.event.place + step];
      if (next) {
        this.fill(next);
      }
    };
    byId("d-before").addEventListener("click", by(-1));
    byId("d-after").addEventListener("click", by(1));
    byId("d-close").addEventListener("click", () => this.box.close());
    byId("d-star").addEventListener("click", () => {
      this.state.toggleFavourite(this.event.channel);
      setPressed(byId("d-star"), this.state.favourites.has(this.event.channel.id));
    });
    byId("d-show").addEventListener("click", () => {
      this.box.close();
      show(this.event);
    });
    this.box.addEventListener("click", (click) => {
      // Its own box is full of the sheet, so this was the veil around it.
      if (click.target === this.box) {
        this.box.close();
      }
    });
    this.box.addEventListener("keydown", (key) => {
      const step = { ArrowLeft: -1, ArrowRight: 1 }[key.key];
      if (step) {
        key.preventDefault();
        by(step)();
      }
    });
  }

  open(event) {
    this.fill(event);
    if (!this.box.open) {
      this.box.showModal();
    }
    byId("d-title").focus();
  }

  fill(event) {
    const { language, favourites } = this.state;
    const text = textOf(event, language);
    this.event = event;
    const channel = byId("d-channel");
    channel.replaceChildren(event.channel.number ? event.channel.number + "  " : "", make("bdi", "", nameOf(event.channel, language)));
    const title = byId("d-title");
    title.textContent = titleOf(event, language);
    title.dir = "auto";
    title.lang = (text.title && text.language) || "en";
    byId("d-when").textContent = [shortDate(event.start), clockRange(event.start, event.end),
      event.end > event.start ? lengthText(event.end - event.start) : ""].filter(Boolean).join(" · ");
    this.clock();
    const chips = event.genres.map((name) => {
      const genre = genreOf([name]);
      const chip = make("li", "g-" + genre.key);
      chip.append(genreIcon(genre), make("span", "", genreText(event, name)));
      return chip;
    });
    for (const { country, age } of event.ratings.filter((rating) => asNumber(rating.age) > 0)) {
      const chip = make("li", "", "From " + age + " years");
      if (asText(country)) {
        chip.append(make("bdi", "", " (" + country + ")"));
      }
      chips.push(chip);
    }
    byId("d-chips").replaceChildren(...chips);
    byId("d-chips").hidden = chips.length === 0;
    this.fillTexts(event, text);
    byId("d-items").replaceChildren(...text.items.map(([name, value]) => this.line(name || "More", value)));
    byId("d-facts").replaceChildren(...factsOf(event, nowSeconds()).map(([name, value]) => this.line(name, value)));
    setPressed(byId("d-star"), favourites.has(event.channel.id));
    byId("d-before").disabled = !event.channel.shown[event.place - 1];
    byId("d-after").disabled = !event.channel.shown[event.place + 1];
    byId("d-show").hidden = event.place < 0;
    this.fillRepeats(event);
    byId("d-body").scrollTop = 0;
  }

  line(name, value) {
    const line = make("div");
    const term = make("dt", "", name);
    const data = make("dd", "", value);
    term.dir = data.dir = "auto";
    line.append(term, data);
    return line;
  }

  fillTexts(event, text) {
    // Many broadcasters begin the long text with the short one.
    const short = text.extended.startsWith(text.description) ? "" : text.description;
    const paragraphs = [[short, "lead"], [text.extended, ""]].filter(([words]) => words);
    const box = byId("d-texts");
    box.replaceChildren(...paragraphs.map(([words, kind]) => {
      const paragraph = make("p", kind, words);
      paragraph.dir = "auto";
      if (text.language) {
        paragraph.lang = text.language;
      }
      return paragraph;
    }));
    // The other languages only say how it is called there.
    const others = event.texts.filter((other) => other !== text && other.title && other.title !== text.title);
    if (others.length) {
      box.append(make("h3", "", "In other languages"));
      for (const other of others) {
        const line = make("p", "", other.title);
        line.dir = "auto";
        if (other.language) {
          line.lang = other.language;
        }
        box.append(line);
      }
    }
  }

  fillRepeats(event) {
    const { guide, language } = this.state;
    const title = textOf(event, language).title;
    const now = nowSeconds();
    const again = [];
    if (title) {
      for (const channel of guide.channels) {
        for (const other of channel.events) {
          if (other !== event.whole && (other.end > now || guide.to <= now) && textOf(other, language).title === title) {
            again.push(other);
          }
        }
      }
    }
    again.sort((a, b) => a.start - b.start);
    byId("d-again").hidden = again.length === 0;
    byId("d-again-list").replaceChildren(...again.slice(0, MOST_REPEATS).map((other) => {
      const item = make("li");
      const button = make("button", "", shortDate(other.start) + ", " + clock(other.start) + " · ");
      button.type = "button";
      button.append(make("bdi", "", nameOf(other.channel, language)));
      button.addEventListener("click", () => {
        this.fill(other);
        byId("d-title").focus();
      });
      item.append(button);
      return item;
    }));
  }

  clock() {
    if (!this.event) {
      return;
    }
    const now = nowSeconds();
    const { start, end } = this.event;
    byId("d-progress").hidden = !(start <= now && now < end);
    byId("d-bar").style.width = ((now - start) / Math.max(1, end - start)) * 100 + "%";
  }
}
