// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/command.h"

// A connection to a server of this machine that sends whatever it is given: servers have to be asked wrongly, too.
class Http_connection {
 public:
  explicit Http_connection(int port);
  ~Http_connection();
  Http_connection(const Http_connection&) = delete;
  Http_connection& operator=(const Http_connection&) = delete;

  // False when the other side has closed it.
  bool send(const std::string& bytes) const;
  // What comes until `text` has come or the other side closes, for `seconds` at most.
  std::string read_until(const std::string& text, int seconds = 20);
  std::string read_to_end(int seconds = 20) { return read_until("", seconds); }
  bool ended() const { return ended_; }

 private:
  int socket_;
  bool ended_ = false;
};

struct Http_result {
  int status = 0;                              // 0: no answer
  std::map<std::string, std::string> headers;  // names in small letters
  std::string body;
};
Http_result parse_answer(const std::string& text);

// `kelvo serve` on a port of its own, until the end of this object.
class Serving {
 public:
  // `argv` is the whole command.
  explicit Serving(const std::vector<std::string>& argv, const support::Environment& env = {});

  int port() const { return port_; }
  const std::string& token() const { return token_; }
  support::Running_command& command() { return command_; }
  // SIGINT; what it has printed, and its code.
  support::Command_result end();

  // The answer to one request on a connection of its own. `more` are further header lines, each with its end.
  Http_result ask(const std::string& method, const std::string& path, const std::string& more = "",
                  const std::string& body = "") const;
  Http_result get(const std::string& path, const std::string& more = "") const { return ask("GET", path, more); }
  Http_result post(const std::string& path, const std::string& body, const std::string& more = "") const;
  std::string host() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  support::Running_command command_;
  int port_ = 0;
  std::string token_;
};
