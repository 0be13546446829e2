// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/http_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <sstream>

#include "support/test.h"

Http_connection::Http_connection(int port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port = htons(static_cast<uint16_t>(port));
  ended_ = connect(socket_, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0;
  EXPECT_FALSE(ended_) << "nobody listens on port " << port;
}

Http_connection::~Http_connection() {
  (void)close(socket_);
}

bool Http_connection::send(const std::string& bytes) const {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0)
      return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}

std::string Http_connection::read_until(const std::string& text, int seconds) {
  std::string out;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!ended_ && (text.empty() || out.find(text) == std::string::npos)) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    pollfd wait{socket_, POLLIN, 0};
    if (left <= 0 || poll(&wait, 1, static_cast<int>(left)) <= 0)
      break;
    char buffer[16384];
    const ssize_t count = recv(socket_, buffer, sizeof buffer, 0);
    if (count <= 0) {
      ended_ = true;
      break;
    }
    out.append(buffer, static_cast<size_t>(count));
  }
  return out;
}

Http_result parse_answer(const std::string& text) {
  Http_result out;
  const size_t end = text.find("\r\n\r\n");
  if (!text.starts_with("HTTP/1.1 ") || end == std::string::npos)
    return out;
  out.status = std::stoi(text.substr(9, 3));
  out.body = text.substr(end + 4);
  std::istringstream lines(text.substr(0, end + 2));
  std::string line;
  (void)std::getline(lines, line);
  while (std::getline(lines, line)) {
    const size_t colon = line.find(": ");
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    EXPECT_TRUE(out.headers.emplace(name, line.substr(colon + 2, line.size() - colon - 3)).second) << line;
  }
  return out;
}

Serving::Serving(const std::vector<std::string>& argv, const support::Environment& env) : command_(argv, env) {
  EXPECT_TRUE(command_.wait_for_out("\n")) << command_.err();
  const std::string line = command_.out();
  std::smatch found;
  EXPECT_TRUE(std::regex_search(line, found, std::regex("http://[^/]*:([0-9]+)/"))) << line;
  port_ = found.empty() ? 0 : std::stoi(found[1]);
  if (std::regex_search(line, found, std::regex("token=([0-9a-f]+)\n")))
    token_ = found[1];
}

support::Command_result Serving::end() {
  (void)kill(command_.pid(), SIGINT);
  return command_.wait();
}

Http_result Serving::ask(const std::string& method, const std::string& path, const std::string& more,
                         const std::string& body) const {
  Http_connection connection(port_);
  const std::string named = more.find("Host:") == std::string::npos ? "Host: " + host() + "\r\n" : "";
  const std::string length = body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n";
  (void)connection.send(method + " " + path + " HTTP/1.1\r\n" + named + "Connection: close\r\n" + more + length +
                        "\r\n" + body);
  return parse_answer(connection.read_to_end());
}

Http_result Serving::post(const std::string& path, const std::string& body, const std::string& more) const {
  return ask("POST", path, "Content-Type: application/x-www-form-urlencoded\r\n" + more, body);
}
