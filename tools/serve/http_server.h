// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct MHD_Connection;
struct MHD_Daemon;

// What a client asks for. Nothing of it is trusted: any bytes but NUL.
struct Http_request {
  std::string method;
  std::string path;                              // percent signs resolved, without what follows a question mark
  std::string local_address;                     // of this machine, by which the request came in: "127.0.0.1", "::1"
  std::map<std::string, std::string> arguments;  // behind the question mark; of an own name the first
  std::map<std::string, std::string> headers;    // names in small letters; of several the first
  std::string body;

  std::string header(const std::string& name) const;
  std::string argument(const std::string& name) const;
};

// What it is given. Bodies are shared: many clients may be reading the same one.
struct Http_answer {
  int status = 200;
  std::string type = "text/plain; charset=utf-8";
  std::shared_ptr<const std::string> body;
  std::vector<std::pair<std::string, std::string>> headers{};
  bool event_stream = false;  // instead of the body: what tell() says, until the client leaves

  static Http_answer text(int status, const std::string& line);
};

// Who answers. Called by Http_server::run(); exceptions become an answer 500, Failure's text one of 503.
class Http_handler {
 public:
  virtual ~Http_handler() = default;
  // Looks at a request whose body has not been read; an answer here refuses it.
  virtual std::optional<Http_answer> refuse(const Http_request& request) = 0;
  virtual Http_answer answer(const Http_request& request) = 0;
};

struct Http_limits {
  unsigned connections = 256;  // more wait until one of them is over
  unsigned event_streams = 128;
  size_t header_bytes = 16384;  // and everything else of a request that has to be remembered
  size_t body_bytes = 4096;
  int idle_s = 15;     // nothing comes, or is taken
  int request_s = 20;  // for a whole request, however often a byte of it comes
  int answer_s = 120;  // for taking a whole answer
  int comment_s = 15;  // a sign of life in event streams
};

// A server of HTTP/1.1 on a socket that listens, without a thread of its own. One thread.
class Http_server {
 public:
  // Takes `listener` over. `handler` is not owned. Throws Failure.
  Http_server(int listener, Http_handler* handler, const Http_limits& limits = {});
  // Ends the event streams and closes all connections.
  ~Http_server();
  Http_server(const Http_server&) = delete;
  Http_server& operator=(const Http_server&) = delete;

  // Waited for by whoever calls run(): readable when there is something to do, at the latest after wait_ms().
  int fd() const;
  int wait_ms() const;
  void run();

  // An event of this name and data for all event streams. A client that has not taken the last one of a name yet gets
  // one of both.
  void tell(const std::string& event, const std::string& data);

  // How many answers had each status since the start, and how many event streams there are.
  const std::map<int, uint64_t>& answers() const { return answers_; }
  size_t event_streams() const { return streams_.size(); }

 private:
  using Clock = std::chrono::steady_clock;
  struct Client;        // a connection
  struct Exchange;      // a request and its answer
  struct Event_stream;  // a client that waits for events
  struct Callbacks;     // what the library of the protocol calls

  void end_slow_clients();
  int give(MHD_Connection* connection, Http_answer answer, const Http_request& request);
  void resume(Event_stream* stream);

  Http_handler& handler_;
  Http_limits limits_;
  MHD_Daemon* daemon_ = nullptr;
  std::list<std::unique_ptr<Client>> clients_;
  std::list<std::unique_ptr<Event_stream>> streams_;
  std::map<int, uint64_t> answers_;
  Clock::time_point looked_;
  Clock::time_point commented_;
  bool closing_ = false;
};
