// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/serve/http_server.h"
#include "tools/serve/request_check.h"
#include "tools/serve/station.h"
#include "tools/serve/stored.h"

// What stands where, and who may have it. There are the paths that answer() lists and nothing else; no file is read but
// the databases. One thread.
class Site : public Http_handler {
 public:
  // Nothing is owned; `station` may be null. An empty token: nobody can change anything.
  // `remarks` say what a scan looks at.
  Site(Stored* stored, Station* station, Allowed_hosts hosts, std::string token, std::vector<std::string> remarks)
      : stored_(*stored),
        station_(station),
        hosts_(std::move(hosts)),
        token_(std::move(token)),
        remarks_(std::move(remarks)) {}

  // Before the first request.
  void set_server(const Http_server* server) { server_ = server; }

  std::optional<Http_answer> refuse(const Http_request& request) override;
  Http_answer answer(const Http_request& request) override;

 private:
  Http_answer document(const Http_request& request, const Document& of) const;
  Http_answer metrics() const;
  Http_answer post(const Http_request& request);
  bool may_control(const std::string& token) const { return same_secret(token, token_); }

  Stored& stored_;
  Station* station_;
  Allowed_hosts hosts_;
  std::string token_;
  std::vector<std::string> remarks_;
  const Http_server* server_ = nullptr;
};

// The value of a field of a form, "a=b&c=d" with percent signs; empty where it has none.
std::string form_value(const std::string& form, const std::string& name);
