// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/serve/http_server.h"

#include <microhttpd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include <fmt/format.h>

#include "tools/cli/failure.h"
#include "tools/serve/listener.h"

namespace {

constexpr std::chrono::seconds LOOK_INTERVAL{1};
constexpr size_t STREAM_BUFFER = 1024;
constexpr int MOST_LAST_RUNS = 10;  // until all who listen have been told that it ends

// Of a header or an argument: the first of a name counts.
MHD_Result keep(void* map, MHD_ValueKind /*kind*/, const char* key, const char* value) {
  std::string name(key != nullptr ? key : "");
  std::transform(name.begin(), name.end(), name.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  (void)static_cast<std::map<std::string, std::string>*>(map)->emplace(name, value != nullptr ? value : "");
  return MHD_YES;
}

// A NUL would cut off what stands behind it; this byte is in no path and no token.
size_t unescape(void* /*self*/, MHD_Connection* /*connection*/, char* text) {
  const size_t length = MHD_http_unescape(text);
  std::replace(text, text + length, '\0', '\xFF');
  return length;
}

std::string local_address_of(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (info == nullptr || getsockname(info->connect_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return "";
  }
  return numeric_address(reinterpret_cast<const sockaddr*>(&address), length);
}

}  // namespace

struct Http_server::Client {
  int socket;
  Clock::time_point until;  // a request has come whole, or an answer has been taken
  bool limited = true;
  std::list<std::unique_ptr<Client>>::iterator place;
};

struct Http_server::Exchange {
  Http_request request;
  bool answered = false;
};

struct Http_server::Event_stream {
  Http_server* server;
  MHD_Connection* connection;
  bool asleep = false;
  std::map<std::string, std::string> waiting;  // events that have not been written
  bool comment = false;
  std::string text;  // what is being written
  std::list<std::unique_ptr<Event_stream>>::iterator place;
};

// Exceptions end here: what calls these is written in C.
struct Http_server::Callbacks {
  static void on_connection(void* self, MHD_Connection* connection, void** context,
                            MHD_ConnectionNotificationCode code) {
    auto* server = static_cast<Http_server*>(self);
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
      const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
      auto client = std::make_unique<Client>();
      client->socket = info != nullptr ? info->connect_fd : -1;
      client->until = Clock::now() + std::chrono::seconds(server->limits_.request_s);
      *context = client.get();
      server->clients_.push_back(std::move(client));
      server->clients_.back()->place = std::prev(server->clients_.end());
    } else if (*context != nullptr) {
      server->clients_.erase(static_cast<Client*>(*context)->place);
      *context = nullptr;
    }
  }

  static MHD_Result on_request(void* self, MHD_Connection* connection, const char* url, const char* method,
                               const char* /*version*/, const char* data, size_t* size, void** context) {
    auto* server = static_cast<Http_server*>(self);
    try {
      return static_cast<MHD_Result>(answer(server, connection, url, method, data, size, context));
    } catch (...) {
      return MHD_NO;  // closes the connection
    }
  }

  static int answer(Http_server* server, MHD_Connection* connection, const char* url, const char* method,
                    const char* data, size_t* size, void** context) {
    auto* exchange = static_cast<Exchange*>(*context);
    if (exchange == nullptr) {
      exchange = new Exchange;  // on_end() deletes it
      *context = exchange;
      Http_request& request = exchange->request;
      request.method = method;
      request.path = url;
      request.local_address = local_address_of(connection);
      (void)MHD_get_connection_values(connection, MHD_HEADER_KIND, keep, &request.headers);
      (void)MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, keep, &request.arguments);
      if (std::optional<Http_answer> refused = body_refused(*server, request)) {
        exchange->answered = true;
        return server->give(connection, std::move(*refused), request);
      }
      if (std::optional<Http_answer> refused = server->handler_.refuse(request)) {
        exchange->answered = true;
        return server->give(connection, std::move(*refused), request);
      }
      return MHD_YES;
    }
    if (*size != 0) {
      if (exchange->request.body.size() + *size <= server->limits_.body_bytes) {
        exchange->request.body.append(data, *size);
      }
      *size = 0;
      return MHD_YES;
    }
    if (exchange->answered) {
      return MHD_YES;
    }
    exchange->answered = true;
    Http_answer out;
    try {
      out = server->handler_.answer(exchange->request);
    } catch (const Failure& failure) {
      out = Http_answer::text(503, failure.what());
    } catch (const std::exception&) {
      out = Http_answer::text(500, "failed");
    }
    return server->give(connection, std::move(out), exchange->request);
  }

  // A body has to say how long it is, so that one that is too long is refused before it comes.
  static std::optional<Http_answer> body_refused(const Http_server& server, const Http_request& request) {
    if (!request.header("transfer-encoding").empty()) {
      return Http_answer::text(411, "a body must say how long it is");
    }
    const std::string length = request.header("content-length");
    if (length.empty()) {
      return std::nullopt;
    }
    if (length.size() > 9 || length.find_first_not_of("0123456789") != std::string::npos ||
        std::stoul(length) > server.limits_.body_bytes) {
      return Http_answer::text(413, "the body is too long");
    }
    return std::nullopt;
  }

  static void on_end(void* self, MHD_Connection* connection, void** context, MHD_RequestTerminationCode /*code*/) {
    delete static_cast<Exchange*>(*context);
    *context = nullptr;
    if (Client* client = client_of(connection)) {
      client->limited = true;
      client->until = Clock::now() + std::chrono::seconds(static_cast<Http_server*>(self)->limits_.request_s);
    }
  }

  static Client* client_of(MHD_Connection* connection) {
    const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info == nullptr ? nullptr : static_cast<Client*>(info->socket_context);
  }

  // Nothing to write puts the connection to sleep until tell() wakes it.
  static ssize_t on_read(void* self, uint64_t /*position*/, char* buffer, size_t most) {
    auto* stream = static_cast<Event_stream*>(self);
    try {
      if (stream->text.empty()) {
        for (const auto& [event, data] : stream->waiting) {
          stream->text += fmt::format("event: {}\ndata: {}\n\n", event, data);
        }
        if (stream->text.empty() && stream->comment) {
          stream->text = ":\n\n";
        }
        stream->waiting.clear();
        stream->comment = false;
      }
      if (stream->text.empty()) {
        if (stream->server->closing_) {
          return MHD_CONTENT_READER_END_OF_STREAM;
        }
        stream->asleep = true;
        MHD_suspend_connection(stream->connection);
        return 0;
      }
      const size_t size = std::min(most, stream->text.size());
      (void)stream->text.copy(buffer, size);  // as many as there are
      stream->text.erase(0, size);
      return static_cast<ssize_t>(size);
    } catch (...) {
      return MHD_CONTENT_READER_END_WITH_ERROR;
    }
  }

  static void on_stream_end(void* self) {
    auto* stream = static_cast<Event_stream*>(self);
    stream->server->streams_.erase(stream->place);
  }

  static void on_body_end(void* body) { delete static_cast<std::shared_ptr<const std::string>*>(body); }
};

std::string Http_request::header(const std::string& name) const {
  const auto found = headers.find(name);
  return found == headers.end() ? "" : found->second;
}

std::string Http_request::argument(const std::string& name) const {
  const auto found = arguments.find(name);
  return found == arguments.end() ? "" : found->second;
}

Http_answer Http_answer::text(int status, const std::string& line) {
  return {.status = status, .body = std::make_shared<const std::string>(line + "\n")};
}

Http_server::Http_server(int listener, Http_handler* handler, const Http_limits& limits)
    : handler_(*handler), limits_(limits), looked_(Clock::now()), commented_(looked_) {
  daemon_ = MHD_start_daemon(MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr, Callbacks::on_request, this,
                             MHD_OPTION_LISTEN_SOCKET, listener, MHD_OPTION_CONNECTION_LIMIT, limits_.connections,
                             MHD_OPTION_CONNECTION_MEMORY_LIMIT, limits_.header_bytes, MHD_OPTION_CONNECTION_TIMEOUT,
                             static_cast<unsigned>(limits_.idle_s), MHD_OPTION_STRICT_FOR_CLIENT, 1,
                             MHD_OPTION_UNESCAPE_CALLBACK, unescape, nullptr, MHD_OPTION_NOTIFY_CONNECTION,
                             Callbacks::on_connection, this, MHD_OPTION_NOTIFY_COMPLETED, Callbacks::on_end, this,
                             MHD_OPTION_END);
  if (daemon_ == nullptr) {
    (void)close(listener);
    throw Failure("the server cannot be started: too many open files?");
  }
}

Http_server::~Http_server() {
  closing_ = true;
  // A connection that sleeps must not be closed: each is woken and ends by itself.
  for (const auto& stream : streams_) {
    resume(stream.get());
  }
  for (int i = 0; i < MOST_LAST_RUNS && !streams_.empty(); ++i) {
    (void)MHD_run(daemon_);
  }
  MHD_stop_daemon(daemon_);
}

int Http_server::fd() const {
  return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
}

int Http_server::wait_ms() const {
  MHD_UNSIGNED_LONG_LONG ms = 0;
  constexpr int MOST = static_cast<int>(std::chrono::milliseconds(LOOK_INTERVAL).count());
  return MHD_get_timeout(daemon_, &ms) == MHD_YES ? static_cast<int>(std::min<MHD_UNSIGNED_LONG_LONG>(ms, MOST)) : MOST;
}

void Http_server::run() {
  (void)MHD_run(daemon_);
  const Clock::time_point now = Clock::now();
  if (now - looked_ >= LOOK_INTERVAL) {
    looked_ = now;
    end_slow_clients();
  }
  if (now - commented_ >= std::chrono::seconds(limits_.comment_s)) {
    commented_ = now;
    for (const auto& stream : streams_) {
      stream->comment = true;
      resume(stream.get());
    }
  }
}

// The library ends a client that is silent; one that sends a byte now and then would hold its place for hours.
void Http_server::end_slow_clients() {
  const Clock::time_point now = Clock::now();
  for (const auto& client : clients_) {
    if (client->limited && now >= client->until) {
      (void)shutdown(client->socket, SHUT_RDWR);
    }
  }
}

void Http_server::resume(Event_stream* stream) {
  if (stream->asleep) {
    stream->asleep = false;
    MHD_resume_connection(stream->connection);
  }
}

void Http_server::tell(const std::string& event, const std::string& data) {
  for (const auto& stream : streams_) {
    stream->waiting[event] = data;
    resume(stream.get());
  }
}

int Http_server::give(MHD_Connection* connection, Http_answer answer, const Http_request& request) {
  const bool streams = answer.event_stream && request.method == "GET";
  if (streams && streams_.size() >= limits_.event_streams) {
    answer = Http_answer::text(503, "too many listen already; try again later");
    answer.headers.emplace_back("Retry-After", "10");
  }
  MHD_Response* response = nullptr;
  if (streams && answer.event_stream) {
    auto stream = std::make_unique<Event_stream>();
    stream->server = this;
    stream->connection = connection;
    // Something is written at once, so that a client knows that it is connected.
    stream->text = "retry: 3000\n\n";
    streams_.push_back(std::move(stream));
    streams_.back()->place = std::prev(streams_.end());
    response = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, STREAM_BUFFER, Callbacks::on_read,
                                                 streams_.back().get(), Callbacks::on_stream_end);
    if (response == nullptr) {
      streams_.pop_back();
    }
  } else {
    // A pointer of its own for each answer: the body lives until the last client has taken it.
    auto body = std::make_unique<std::shared_ptr<const std::string>>(
        answer.body ? answer.body : std::make_shared<const std::string>());
    response = MHD_create_response_from_buffer_with_free_callback_cls(
        (*body)->size(), const_cast<char*>((*body)->data()), Callbacks::on_body_end, body.get());
    if (response != nullptr) {
      (void)body.release();
    }
  }
  if (response == nullptr) {
    return MHD_NO;
  }
  if (answer.status != 304) {
    (void)MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.type.c_str());
  }
  for (const auto& [name, value] : answer.headers) {
    (void)MHD_add_response_header(response, name.c_str(), value.c_str());
  }
  if (Client* client = Callbacks::client_of(connection)) {
    client->limited = !(streams && answer.event_stream);
    client->until = Clock::now() + std::chrono::seconds(limits_.answer_s);
  }
  const MHD_Result queued = MHD_queue_response(connection, static_cast<unsigned>(answer.status), response);
  MHD_destroy_response(response);
  ++answers_[answer.status];
  return queued;
}
