// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

namespace support {

// A browser without a screen, with a folder of its own and always in its sandbox; as nobody where the tests run as
// root. What it is asked are the operations of webdriver.py. A failure of one fails the test.
class Browser {
 public:
  Browser();
  ~Browser();
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  // Empty, or why there is none here: skip the test then.
  const std::string& missing() const { return missing_; }

  nlohmann::json ask(nlohmann::json request);

  void open(const std::string& file) { (void)ask({{"do", "open"}, {"file", file}}); }
  void go(const std::string& url) { (void)ask({{"do", "open"}, {"url", url}}); }
  // Runs a function's body; arguments[0] is `argument`. Waits for a promise.
  nlohmann::json js(const std::string& script, const nlohmann::json& argument = nullptr) {
    return ask({{"do", "js"}, {"script", script}, {"args", {argument}}});
  }
  // Until the script returns something true, which is given; so many seconds at the most.
  nlohmann::json wait(const std::string& script, const nlohmann::json& argument = nullptr, int seconds = 30) {
    return ask({{"do", "wait"}, {"script", script}, {"args", {argument}}, {"seconds", seconds}});
  }
  // "ArrowDown", "Enter", "Control+End", or text.
  void keys(const std::vector<std::string>& names) { (void)ask({{"do", "keys"}, {"list", names}}); }
  void click(const std::string& selector) { (void)ask({{"do", "click"}, {"selector", selector}}); }
  // Its size as pages see it; a screenshot has `scale` times as many pixels each way.
  void screen(int width, int height, bool phone = false, double scale = 1) {
    (void)ask({{"do", "screen"}, {"width", width}, {"height", height}, {"mobile", phone}, {"scale", scale}});
  }
  void zone(const std::string& name) { (void)ask({{"do", "zone"}, {"name", name}}); }
  // {"media": "print"}, {"prefers_color_scheme": "dark"}.
  void media(nlohmann::json what) {
    what["do"] = "media";
    (void)ask(what);
  }
  void screenshot(const std::string& file) { (void)ask({{"do", "screenshot"}, {"file", file}}); }
  // What axe-core, whose file this is, finds wrong with the page as it is for those who do not see it or use no mouse:
  // the serious and the critical, a line each.
  nlohmann::json serious_findings(const std::string& axe_file);
  // What pages did against their policy, errors of their scripts, and messages of the browser, since the last open().
  nlohmann::json complaints();

 private:
  std::string missing_;
  int to_ = -1;
  int from_ = -1;
  int pid_ = -1;
  std::string buffer_;
};

// A zone in which it is noon, or up to an hour later, at that time: no midnight is near.
inline std::string zone_of_noon(int64_t seconds) {
  const int64_t east = 12 - seconds / 3600 % 24;
  return (east < 0 ? "Etc/GMT+" : "Etc/GMT-") + std::to_string(east < 0 ? -east : east);  // as they are written
}

// Colours of the pixels of a screenshot, as "RRGGBB", and how many have them.
std::map<std::string, size_t> colours_of(const std::string& png);

}  // namespace support
