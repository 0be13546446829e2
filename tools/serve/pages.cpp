// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/serve/pages.h"

#include <linux/dvb/frontend.h>

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "tools/cli/local_time.h"
#include "tools/cli/text.h"
#include "tools/engine/tuning_text.h"

namespace {

constexpr int MOST_PERCENT = 100;

// Texts off the air turn in their own direction, whatever stands beside them.
std::string off_air(const std::string& text) {
  return "<bdi>" + html_text(text) + "</bdi>";
}

std::string page(const std::string& title, const char* own, const std::string& token, const std::string& body) {
  const std::string scan = token.empty() ? "scan" : "scan?token=" + html_text(token);
  const std::string channels = token.empty() ? "channels" : "channels?token=" + html_text(token);
  const auto link = [own](const std::string& to, const char* name) {
    const bool here = std::string_view(name) == own;
    return fmt::format("<a href=\"{}\"{}>{}</a>", to, here ? " aria-current=\"page\"" : "", name);
  };
  return fmt::format(
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>{0} - kelvo</title>\n"
      "<link rel=\"stylesheet\" href=\"style.css\">\n<script src=\"live.js\" defer></script>\n"
      "<noscript><meta http-equiv=\"refresh\" content=\"5\"></noscript>\n</head>\n<body>\n"
      "<nav aria-label=\"Pages\">{1} {2} {3}</nav>\n<main>\n<h1>{0}</h1>\n"
      "<p id=\"connection\" role=\"status\"></p>\n{4}</main>\n</body>\n</html>\n",
      title, link(".", "Guide"), link(channels, "Channels"), link(scan, "Scan"), body);
}

// A bar where the reading is a part of a range, and the reading in words.
std::string reading(const char* name, const Signal_value& value, const std::string& text) {
  if (value.scale == SCALE_ABSENT) {
    return "";
  }
  std::string bar;
  if (value.scale == SCALE_RELATIVE) {
    bar = fmt::format("<meter min=\"0\" max=\"{}\" value=\"{:.0f}\" aria-label=\"{}\"></meter> ", MOST_PERCENT,
                      std::clamp<double>(value.value, 0, MOST_PERCENT), name);
  }
  return fmt::format("<span class=\"reading\">{} {}{}</span>\n", name, bar, html_text(text));
}

std::string signal_text(const Signal_readings& signal) {
  return reading("Strength", signal.strength, strength_text(signal.strength)) +
         reading("SNR", signal.snr, snr_text(signal.snr)) +
         reading("Errors", signal.post_ber, errors_text(signal.post_ber)) +
         reading("Blocks lost", signal.block_errors, errors_text(signal.block_errors));
}

// What is known of the reception of a multiplex: as it is now, or as it was last.
std::string reception_of(int freq, const Station_state& station) {
  std::string out;
  for (const auto& [number, adapter] : station.adapters) {
    if (adapter.open && adapter.freq == freq) {
      const bool locked = (adapter.signal.status & FE_HAS_LOCK) != 0;
      out += fmt::format("<p class=\"signal {}\">Adapter {}: {}\n{}</p>\n", locked ? "good" : "bad", number,
                         html_text(locked ? locked_text(adapter.tuning) : no_lock_text(adapter.tuning)),
                         signal_text(adapter.signal));
      continue;
    }
    const auto seen = station.multiplexes.find({number, freq});
    if (seen != station.multiplexes.end() && seen->second.seen != 0) {
      out += fmt::format("<p class=\"signal old\">Adapter {} at {}:\n{}</p>\n", number,
                         local_time(seen->second.seen, "%H:%M:%S"), signal_text(seen->second.signal));
    }
  }
  return out;
}

std::string seconds_text(double left) {
  const auto seconds = std::max(0L, std::lround(left));
  return seconds < 60 ? fmt::format("{} s", seconds) : fmt::format("{}:{:02} min", seconds / 60, seconds % 60);
}

std::string progress_of(const Scan_state& scan) {
  std::string out = fmt::format(
      "<p role=\"status\"><label>Scanning <progress max=\"{}\" value=\"{}\"></progress></label> "
      "<b id=\"done\">{} of {}</b> frequencies, <b id=\"services\">{}</b> services{}</p>\n<ul>\n",
      scan.total, scan.done, scan.done, scan.total, scan.services,
      scan.left_s ? ", about " + seconds_text(*scan.left_s) + " left" : "");
  for (const Engine::Under_way& one : scan.under_way) {
    out += fmt::format("<li>{}, signal {}</li>\n", mhz(one.freq), html_text(strength_text(one.strength)));
  }
  return out + "</ul>\n";
}

std::string lines_of(const Scan_state& scan) {
  if (scan.lines.empty()) {
    return "";
  }
  std::vector<Multiplex_line> lines = scan.lines;
  std::stable_sort(lines.begin(), lines.end(),
                   [](const Multiplex_line& a, const Multiplex_line& b) { return a.result.freq < b.result.freq; });
  std::string out =
      "<table>\n<caption>Frequencies of this scan</caption>\n<thead><tr><th scope=\"col\">Frequency</th>"
      "<th scope=\"col\">Services</th><th scope=\"col\">Strength</th><th scope=\"col\">SNR</th>"
      "<th scope=\"col\">Result</th></tr></thead>\n<tbody>\n";
  for (const Multiplex_line& line : lines) {
    out += fmt::format("<tr><th scope=\"row\">{}</th><td>{}</td><td>{}</td><td>{}</td><td>{}{}</td></tr>\n",
                       mhz(line.result.freq), line.services, html_text(strength_text(line.result.signal.strength)),
                       html_text(snr_text(line.result.signal.snr)), html_text(outcome_text(line.result)),
                       line.note.empty() ? "" : "; " + html_text(line.note));
  }
  return out + "</tbody>\n</table>\n";
}

// The button says what it does now; the page behind it is this one again.
std::string button_of(const Page_source& source) {
  if (source.station == nullptr) {
    return "<p>No adapter is used, so nothing can be scanned.</p>\n";
  }
  if (!source.control) {
    return "<p>Scans are started by <code>kelvo scan</code>, or here when the server runs with "
           "<code>--control</code>.</p>\n";
  }
  if (source.token.empty()) {
    return "<p>Open the page by the URL that the server printed to start a scan.</p>\n";
  }
  const bool running = source.station->scan.running;
  std::string remarks;
  for (const std::string& remark : *source.remarks) {
    remarks += "<p>" + html_text(remark) + "</p>\n";
  }
  return remarks + fmt::format(
                       "<form method=\"post\" action=\"scan\"><input type=\"hidden\" name=\"token\" value=\"{}\">"
                       "<button name=\"do\" value=\"{}\">{}</button></form>\n",
                       html_text(source.token), running ? "stop" : "start", running ? "Stop the scan" : "Start a scan");
}

}  // namespace

std::string html_text(std::string_view text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string channels_page(const std::vector<Service>& services, const std::map<int, std::string>& now,
                          const Page_source& source) {
  std::map<int, std::vector<const Service*>> by_freq;
  for (const Service& service : services) {
    by_freq[service.freq].push_back(&service);
  }
  std::string body = "<div id=\"live\" data-poll=\"2\">\n";
  if (services.empty()) {
    body += "<p>No channels yet; <a href=\"scan\">a scan</a> finds them.</p>\n";
  }
  for (const auto& [freq, all] : by_freq) {
    const auto named =
        std::find_if(all.begin(), all.end(), [](const Service* service) { return !service->network.empty(); });
    body += fmt::format("<section>\n<h2>{}{}</h2>\n", mhz(freq),
                        named == all.end() ? "" : ", " + off_air((*named)->network));
    if (source.station != nullptr) {
      body += reception_of(freq, *source.station);
    }
    body +=
        "<table>\n<thead><tr><th scope=\"col\">No.</th><th scope=\"col\">Name</th><th scope=\"col\">Type</th>"
        "<th scope=\"col\">State</th><th scope=\"col\">Now</th></tr></thead>\n<tbody>\n";
    for (const Service* service : all) {
      const auto on = now.find(service->channel);
      body += fmt::format("<tr><td>{}</td><th scope=\"row\">{}</th><td>{}{}</td><td>{}{}</td><td>{}</td></tr>\n",
                          lcn_text(*service), off_air(or_dash(service->name)), html_text(type_text(*service)),
                          service->scrambled ? ", scrambled" : "", html_text(state_text(*service)),
                          service->visible ? "" : ", hidden", on == now.end() ? "" : off_air(on->second));
    }
    body += "</tbody>\n</table>\n</section>\n";
  }
  return page("Channels", "Channels", source.token, body + "</div>\n");
}

std::string scan_page(const Page_source& source) {
  std::string body = "<div id=\"live\" data-poll=\"1\">\n";
  if (source.station != nullptr) {
    const Scan_state& scan = source.station->scan;
    if (scan.running) {
      body += progress_of(scan);
    } else if (scan.begun != 0) {
      body += fmt::format("<p role=\"status\">Scan of {}: <b id=\"end\">{}</b>, {} services on {} frequencies.</p>\n",
                          local_time(scan.begun, "%Y-%m-%d %H:%M"), html_text(scan.end), scan.services, scan.done);
    } else {
      body += "<p role=\"status\">No scan since the server was started.</p>\n";
    }
    body += lines_of(scan);
  }
  return page("Scan", "Scan", source.token, body + "</div>\n<div id=\"action\">\n" + button_of(source) + "</div>\n");
}

const char* const PAGE_STYLE = R"(:root {
  color-scheme: light dark;
  --back: #fff; --text: #1b1b1f; --line: #c6c6cf; --good: #17692c; --bad: #a3231f; --link: #1a4fa0;
}
@media (prefers-color-scheme: dark) {
  :root { --back: #16171b; --text: #ececf1; --line: #4a4b55; --good: #7ad391; --bad: #ff9d96; --link: #9cc2ff; }
}
body { margin: 0 auto; max-width: 70rem; padding: 0 1rem 2rem; background: var(--back); color: var(--text);
  font: 1rem/1.5 system-ui, sans-serif; }
nav { display: flex; gap: 1.5rem; padding: .75rem 0; border-bottom: 1px solid var(--line); }
a { color: var(--link); }
nav a[aria-current] { color: inherit; font-weight: 600; text-decoration: none; }
h1 { font-size: 1.4rem; margin: 1rem 0 .5rem; }
h2 { font-size: 1.1rem; margin: 1.5rem 0 .25rem; }
table { width: 100%; border-collapse: collapse; }
caption { text-align: start; padding: .5rem 0; }
th, td { text-align: start; vertical-align: top; padding: .25rem .75rem .25rem 0; border-bottom: 1px solid var(--line);
  overflow-wrap: anywhere; }
th[scope=row] { font-weight: 600; }
.signal { margin: .25rem 0; }
.reading { white-space: nowrap; margin-inline-start: 1rem; }
.good { color: var(--good); }
.bad { color: var(--bad); }
.old { opacity: .8; }
#connection:empty { display: none; }
#connection { color: var(--bad); }
progress { width: min(20rem, 60vw); vertical-align: middle; }
button { font: inherit; padding: .5rem 1.25rem; margin-top: 1rem; cursor: pointer; }
@media print { nav, #action { display: none; } }
)";

// What a page shows is made by the server alone; this puts its newest state into the place of the old one.
const char* const LIVE_SCRIPT = R"("use strict";
(() => {
  const live = document.getElementById("live");
  const connection = document.getElementById("connection");
  if (!live || !connection) return;
  let busy = false, again = false;
  async function refresh() {
    if (busy) { again = true; return; }
    busy = true;
    try {
      const answer = await fetch(location.href, { cache: "no-store" });
      if (!answer.ok) throw new Error(answer.statusText);
      const fresh = new DOMParser().parseFromString(await answer.text(), "text/html");
      for (const id of ["live", "action"]) {
        const from = fresh.getElementById(id), to = document.getElementById(id);
        if (from && to && from.innerHTML !== to.innerHTML) {
          const focused = to.contains(document.activeElement);
          to.replaceChildren(...from.childNodes);
          if (focused) to.querySelector("button")?.focus();
        }
      }
      connection.textContent = "";
    } catch {
      connection.textContent = "The server does not answer.";
    }
    busy = false;
    if (again) { again = false; refresh(); }
  }
  const source = new EventSource("changes");
  for (const name of ["channels", "guide", "scan"]) source.addEventListener(name, refresh);
  source.addEventListener("error", () => { connection.textContent = "Not connected."; });
  source.addEventListener("open", () => { connection.textContent = ""; });
  setInterval(() => { if (!document.hidden) refresh(); }, 1000 * live.dataset.poll);
})();
)";
