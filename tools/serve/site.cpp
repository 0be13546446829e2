// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/serve/site.h"

#include <algorithm>
#include <ctime>
#include <string_view>

#include "tools/guide/page.h"
#include "tools/serve/metrics.h"
#include "tools/serve/pages.h"

namespace {

constexpr const char* HTML = "text/html; charset=utf-8";
constexpr const char* JSON = "application/json";
constexpr const char* METRICS = "text/plain; version=0.0.4; charset=utf-8";

// What the own pages may load: what this server gives, and nothing else.
constexpr const char* OWN_POLICY =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; base-uri 'none'; form-action 'self'; "
    "frame-ancestors 'none'";
// The guide says itself what it may load; this is what a page cannot say.
constexpr const char* GUIDE_POLICY = "frame-ancestors 'none'";
// Everything else is no page; should a browser take it for one, it may do nothing.
constexpr const char* NO_PAGE_POLICY = "default-src 'none'; frame-ancestors 'none'; sandbox";

Http_answer made(const char* type, std::string text, const char* policy = NO_PAGE_POLICY) {
  Http_answer out;
  out.type = type;
  out.body = std::make_shared<const std::string>(std::move(text));
  out.headers.emplace_back("Content-Security-Policy", policy);
  return out;
}

Http_answer secured(Http_answer answer) {
  bool has_policy = false;
  bool has_caching = false;
  for (const auto& [name, value] : answer.headers) {
    has_policy = has_policy || name == "Content-Security-Policy";
    has_caching = has_caching || name == "Cache-Control";
  }
  if (!has_policy) {
    answer.headers.emplace_back("Content-Security-Policy", NO_PAGE_POLICY);
  }
  if (!has_caching) {
    answer.headers.emplace_back("Cache-Control", "no-store");
  }
  answer.headers.emplace_back("X-Content-Type-Options", "nosniff");
  // With less, browsers give the form of a page no origin.
  answer.headers.emplace_back("Referrer-Policy", "same-origin");
  answer.headers.emplace_back("Cross-Origin-Resource-Policy", "same-origin");
  answer.headers.emplace_back("Cross-Origin-Opener-Policy", "same-origin");
  answer.headers.emplace_back("X-Frame-Options", "DENY");
  return answer;
}

bool is_reading(const std::string& method) {
  return method == "GET" || method == "HEAD";
}

int digit(char c) {
  return c >= '0' && c <= '9'   ? c - '0'
         : c >= 'a' && c <= 'f' ? c - 'a' + 10
         : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                : -1;
}

std::string resolved(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && digit(text[i + 1]) >= 0 && digit(text[i + 2]) >= 0) {
      out += static_cast<char>(digit(text[i + 1]) * 16 + digit(text[i + 2]));
      i += 2;
    } else {
      out += text[i] == '+' ? ' ' : text[i];
    }
  }
  return out;
}

}  // namespace

std::string form_value(const std::string& form, const std::string& name) {
  for (size_t at = 0; at <= form.size();) {
    const size_t end = std::min(form.find('&', at), form.size());
    const std::string_view field = std::string_view(form).substr(at, end - at);
    const size_t is = field.find('=');
    if (is != std::string_view::npos && resolved(field.substr(0, is)) == name) {
      return resolved(field.substr(is + 1));
    }
    at = end + 1;
  }
  return "";
}

std::optional<Http_answer> Site::refuse(const Http_request& request) {
  if (!hosts_.allows(request.header("host"), request.local_address)) {
    return secured(Http_answer::text(421, "this name of the server is not known to it; start it with --host NAME"));
  }
  const bool reading = is_reading(request.method);
  const bool posting = request.method == "POST" && request.path == "/scan" && !token_.empty();
  if (!reading && !posting) {
    Http_answer out = Http_answer::text(405, "only looking is possible here");
    out.headers.emplace_back("Allow", request.path == "/scan" && !token_.empty() ? "GET, HEAD, POST" : "GET, HEAD");
    return secured(std::move(out));
  }
  // Browsers say so where a page of another site asks, and not somebody who follows a link.
  const std::string site = request.header("sec-fetch-site");
  const bool foreign = site == "cross-site" || site == "same-site";
  if (foreign && (posting || request.header("sec-fetch-mode") != "navigate")) {
    return secured(Http_answer::text(403, "not for pages of other sites"));
  }
  const std::string origin = request.header("origin");
  if (posting && !origin.empty() && !is_own_origin(origin, request.header("host"))) {
    return secured(Http_answer::text(403, "not for pages of other sites"));
  }
  if (posting && request.header("content-length").empty()) {
    return secured(Http_answer::text(411, "a body must say how long it is"));
  }
  if (reading && !request.header("content-length").empty() && request.header("content-length") != "0") {
    return secured(Http_answer::text(400, "no body is taken"));
  }
  return std::nullopt;
}

Http_answer Site::document(const Http_request& request, const Document& of) const {
  Http_answer out;
  out.type = JSON;
  out.body = of.text;
  out.headers.emplace_back("ETag", of.etag);
  // Kept by the browser, and asked about each time.
  out.headers.emplace_back("Cache-Control", "no-cache");
  if (request.header("if-none-match").find(of.etag) != std::string::npos) {
    out.status = 304;
    out.body = nullptr;
  }
  return out;
}

Http_answer Site::metrics() const {
  std::optional<Station_state> station;
  if (station_ != nullptr) {
    station = station_->state();
  }
  Metrics_source source;
  source.now = time(nullptr);
  source.station = station ? &*station : nullptr;
  source.multiplexes = &stored_.multiplexes();
  source.guide_changed = stored_.guide_changed();
  source.answers = &server_->answers();
  source.event_streams = server_->event_streams();
  return made(METRICS, metrics_text(source));
}

Http_answer Site::post(const Http_request& request) {
  const std::string token = form_value(request.body, "token");
  if (!may_control(token)) {
    return Http_answer::text(403, "a wrong token, or none; it stands in the URL that the server printed");
  }
  if (station_ == nullptr) {
    return Http_answer::text(409, "no adapter is used");
  }
  const std::string what = form_value(request.body, "do");
  if (what == "stop") {
    station_->stop_scan();
  } else if (what != "start") {
    return Http_answer::text(400, "do=start or do=stop");
  } else if (!station_->start_scan()) {
    return Http_answer::text(409, "a scan runs already");
  }
  Http_answer out = Http_answer::text(303, "done");
  out.headers.emplace_back("Location", "scan?token=" + token_);
  return out;
}

Http_answer Site::answer(const Http_request& request) {
  const std::string& path = request.path;
  if (!is_reading(request.method)) {
    return secured(post(request));
  }
  Page_source source;
  std::optional<Station_state> station;
  if (station_ != nullptr && (path == "/channels" || path == "/scan")) {
    station = station_->state();
    source.station = &*station;
  }
  source.control = !token_.empty();
  if (may_control(request.argument("token"))) {
    source.token = token_;
    source.remarks = &remarks_;
  }
  if (path == "/") {
    static const auto guide = std::make_shared<const std::string>(guide_page({}, {}, Page_kind::LIVE));
    Http_answer out = made(HTML, "", GUIDE_POLICY);
    out.body = guide;
    return secured(std::move(out));
  }
  if (path == "/guide.json") {
    return secured(document(request, stored_.guide_document()));
  }
  if (path == "/channels.json") {
    return secured(document(request, stored_.channels_document()));
  }
  if (path == "/channels") {
    return secured(made(HTML, channels_page(stored_.services(), stored_.now(), source), OWN_POLICY));
  }
  if (path == "/scan") {
    return secured(made(HTML, scan_page(source), OWN_POLICY));
  }
  if (path == "/changes") {
    Http_answer out;
    out.type = "text/event-stream";
    out.event_stream = true;
    return secured(std::move(out));
  }
  if (path == "/metrics") {
    return secured(metrics());
  }
  if (path == "/style.css") {
    return secured(made("text/css; charset=utf-8", std::string(PAGE_STYLE.text)));
  }
  if (path == "/live.js") {
    return secured(made("text/javascript; charset=utf-8", std::string(PAGE_SCRIPT.text)));
  }
  return secured(Http_answer::text(404, "there is no such page"));
}
