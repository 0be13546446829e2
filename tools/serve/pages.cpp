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
#include "tools/guide/page.h"

namespace {

constexpr int MOST_PERCENT = 100;

// Texts off the air turn in their own direction, whatever stands beside them.
std::string off_air(const std::string& text) {
  return "<bdi>" + html_text(text) + "</bdi>";
}

// What may be as long as its sender likes.
std::string cut_off_air(const std::string& text) {
  return "<bdi class=\"cut\">" + html_text(text) + "</bdi>";
}

// Written in this machine's zone; the script puts it into that of whoever looks.
std::string moment(int64_t seconds, bool with_day = false) {
  return fmt::format("<time datetime=\"{}\"{}>{}</time>", zone_time(seconds, 0, "%Y-%m-%dT%H:%M:%SZ"),
                     with_day ? " data-day" : "", local_time(seconds, with_day ? "%Y-%m-%d %H:%M" : "%H:%M"));
}

// A page of this server, for who has the token with it.
std::string link_to(const char* to, const std::string& token) {
  return token.empty() ? std::string(to) : fmt::format("{}?token={}", to, html_text(token));
}

std::string page(const char* title, const std::string& token, const std::string& body) {
  const auto link = [&](const char* to, const char* name) {
    const bool here = std::string_view(name) == title;
    return fmt::format("<a href=\"{}\"{}>{}</a>", link_to(to, token), here ? " aria-current=\"page\"" : "", name);
  };
  return fmt::format(
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      "<meta name=\"color-scheme\" content=\"light dark\">\n<title>{0} - kelvo</title>\n"
      "<link rel=\"stylesheet\" href=\"style.css\">\n<script src=\"live.js\"></script>\n"
      "<noscript><meta http-equiv=\"refresh\" content=\"5\"></noscript>\n</head>\n<body>\n"
      "{1}<a class=\"skip\" href=\"#main\">Skip to the content</a>\n"
      "<header id=\"top\">\n<div class=\"bar\">\n<h1>{0}</h1>\n"
      "<nav id=\"pages\" aria-label=\"Pages\">{2}{3}{4}</nav>\n"
      "<div class=\"tools\"><button type=\"button\" class=\"tool\" id=\"theme\" hidden>"
      "<svg class=\"icon\" aria-hidden=\"true\"><use href=\"#i-theme\"/></svg>"
      "<span class=\"unseen\" id=\"theme-text\">Colours: as the system</span></button></div>\n</div>\n</header>\n"
      "<main id=\"main\" tabindex=\"-1\">\n<p id=\"connection\" role=\"status\"></p>\n{5}</main>\n</body>\n</html>\n",
      title, GUIDE_SYMBOLS.text, link(".", "Guide"), link("channels", "Channels"), link("scan", "Scan"), body);
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
  return fmt::format("<div><dt>{}</dt><dd>{}{}</dd></div>\n", name, bar, html_text(text));
}

std::string signal_text(const Signal_readings& signal) {
  const std::string all = reading("Strength", signal.strength, strength_text(signal.strength)) +
                          reading("SNR", signal.snr, snr_text(signal.snr)) +
                          reading("Errors", signal.post_ber, errors_text(signal.post_ber)) +
                          reading("Blocks lost", signal.block_errors, errors_text(signal.block_errors));
  return all.empty() ? "" : "<dl class=\"readings\">\n" + all + "</dl>\n";
}

// What is known of the reception of a multiplex: as it is now, or as it was last.
std::string reception_of(int freq, const Station_state& station) {
  std::string out;
  for (const auto& [number, adapter] : station.adapters) {
    if (adapter.open && adapter.freq == freq) {
      const bool locked = (adapter.signal.status & FE_HAS_LOCK) != 0;
      out += fmt::format("<div class=\"signal {}\">\n<p class=\"what\">Adapter {}: {}</p>\n{}</div>\n",
                         locked ? "good" : "bad", number,
                         html_text(locked ? locked_text(adapter.tuning) : no_lock_text(adapter.tuning)),
                         signal_text(adapter.signal));
      continue;
    }
    const auto seen = station.multiplexes.find({number, freq});
    if (seen != station.multiplexes.end() && seen->second.seen != 0) {
      out += fmt::format("<div class=\"signal old\">\n<p class=\"what\">Adapter {} at {}</p>\n{}</div>\n", number,
                         moment(seen->second.seen), signal_text(seen->second.signal));
    }
  }
  return out;
}

std::string row_of(const Service& service, const std::map<int, Stored::On_now>& now) {
  const std::string type = html_text(type_text(service)) + (service.scrambled ? ", scrambled" : "");
  const bool found = service.scan_state == 1;
  // What is as it should be is not said.
  const std::string state =
      found ? (service.visible ? "" : "hidden") : html_text(state_text(service)) + (service.visible ? "" : ", hidden");
  std::string on;
  if (const auto at = now.find(service.channel); at != now.end()) {
    on = cut_off_air(or_dash(at->second.title)) +
         fmt::format(" <span class=\"until\">until {}</span>", moment(at->second.end));
  }
  return fmt::format(
      "<tr{}><td class=\"number\">{}</td><th scope=\"row\">{}</th><td class=\"sort\">{}</td><td class=\"state\">{}</td>"
      "<td class=\"now\">{}</td></tr>\n",
      found ? "" : " class=\"gone\"", lcn_text(service), cut_off_air(or_dash(service.name)), type, state, on);
}

std::string seconds_text(double left) {
  const auto seconds = std::max(0L, std::lround(left));
  return seconds < 60 ? fmt::format("{} s", seconds) : fmt::format("{}:{:02} min", seconds / 60, seconds % 60);
}

std::string progress_of(const Scan_state& scan) {
  std::string out = fmt::format(
      "<p class=\"running\"><span><b id=\"done\">{} of {}</b> frequencies, <b id=\"services\">{}</b> services</span>"
      "<span class=\"left\">{}</span></p>\n"
      "<progress max=\"{}\" value=\"{}\" aria-label=\"Frequencies done\"></progress>\n<ul class=\"under-way\">\n",
      scan.done, scan.total, scan.services, scan.left_s ? "about " + seconds_text(*scan.left_s) + " left" : "",
      scan.total, scan.done);
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
      "<div class=\"box\">\n<h2 id=\"frequencies\">Frequencies of this scan</h2>\n"
      "<table class=\"frequencies\" aria-labelledby=\"frequencies\">\n<thead><tr><th scope=\"col\">Frequency</th>"
      "<th scope=\"col\" class=\"count\">Services</th><th scope=\"col\" class=\"value\">Strength</th>"
      "<th scope=\"col\" class=\"value\">SNR</th><th scope=\"col\" class=\"result\">Result</th></tr></thead>\n<tbody>\n";
  for (const Multiplex_line& line : lines) {
    out += fmt::format(
        "<tr{}><th scope=\"row\">{}</th><td class=\"count\">{}</td><td class=\"value\">{}</td><td class=\"value\">{}</td>"
        "<td class=\"result\">{}{}</td></tr>\n",
        line.services > 0 ? "" : " class=\"gone\"", mhz(line.result.freq), line.services,
        html_text(strength_text(line.result.signal.strength)), html_text(snr_text(line.result.signal.snr)),
        html_text(outcome_text(line.result)), line.note.empty() ? "" : "; " + html_text(line.note));
  }
  return out + "</tbody>\n</table>\n</div>\n";
}

// The button says what it does now; the page behind it is this one again.
std::string button_of(const Page_source& source) {
  if (source.station == nullptr) {
    return "<p class=\"hint\">No adapter is used, so nothing can be scanned.</p>\n";
  }
  if (!source.control) {
    return "<p class=\"hint\">Scans are started by <code>kelvo scan</code>, or here when the server runs with "
           "<code>--control</code>.</p>\n";
  }
  if (source.token.empty()) {
    return "<p class=\"hint\">Open the page by the URL that the server printed to start a scan.</p>\n";
  }
  const bool running = source.station->scan.running;
  std::string remarks;
  for (const std::string& remark : *source.remarks) {
    remarks += "<p class=\"hint\">" + html_text(remark) + "</p>\n";
  }
  return remarks + fmt::format(
                       "<form method=\"post\" action=\"scan\"><input type=\"hidden\" name=\"token\" value=\"{}\">"
                       "<button class=\"do\" name=\"do\" value=\"{}\">{}</button></form>\n",
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

std::string channels_page(const std::vector<Service>& services, const std::map<int, Stored::On_now>& now,
                          const Page_source& source) {
  std::map<int, std::vector<const Service*>> by_freq;
  for (const Service& service : services) {
    by_freq[service.freq].push_back(&service);
  }
  std::string body = "<div id=\"live\" class=\"boxes\">\n";
  if (services.empty()) {
    body +=
        fmt::format("<p class=\"empty\"><strong>No channels yet</strong> <a href=\"{}\">A scan</a> finds them.</p>\n",
                    link_to("scan", source.token));
  }
  for (const auto& [freq, all] : by_freq) {
    const auto named =
        std::find_if(all.begin(), all.end(), [](const Service* service) { return !service->network.empty(); });
    body += fmt::format("<section class=\"box\" aria-labelledby=\"f{0}\">\n<h2 id=\"f{0}\" class=\"cut\">{1}{2}</h2>\n",
                        freq, mhz(freq), named == all.end() ? "" : ", " + off_air((*named)->network));
    if (source.station != nullptr) {
      body += reception_of(freq, *source.station);
    }
    body += fmt::format(
        "<table aria-labelledby=\"f{}\">\n<thead><tr><th scope=\"col\" class=\"number\">No.</th>"
        "<th scope=\"col\">Name</th><th scope=\"col\" class=\"sort\">Type</th><th scope=\"col\" class=\"state\">State</th>"
        "<th scope=\"col\" class=\"now\">Now</th></tr></thead>\n<tbody>\n",
        freq);
    for (const Service* service : all) {
      body += row_of(*service, now);
    }
    body += "</tbody>\n</table>\n</section>\n";
  }
  return page("Channels", source.token, body + "</div>\n");
}

std::string scan_page(const Page_source& source) {
  std::string state;
  std::string lines;
  if (source.station != nullptr) {
    const Scan_state& scan = source.station->scan;
    if (scan.running) {
      state = "<p class=\"unseen\" role=\"status\">A scan is running.</p>\n" + progress_of(scan);
    } else if (scan.begun != 0) {
      state = fmt::format("<p role=\"status\">Scan of {}: <b id=\"end\">{}</b>, {} services on {} frequencies.</p>\n",
                          moment(scan.begun, true), html_text(scan.end), scan.services, scan.done);
    } else {
      state = "<p role=\"status\">No scan since the server was started.</p>\n";
    }
    lines = lines_of(scan);
  }
  return page("Scan", source.token,
              "<div class=\"narrow\">\n<div class=\"box\">\n<div id=\"state\">\n" + state +
                  "</div>\n<div id=\"action\">\n" + button_of(source) + "</div>\n</div>\n<div id=\"lines\">\n" + lines +
                  "</div>\n</div>\n");
}
