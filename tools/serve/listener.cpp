// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/serve/listener.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include <fmt/format.h>

#include "tools/cli/failure.h"

namespace {

constexpr int BACKLOG = 128;

std::string why(int error, const std::string& address, int port) {
  switch (error) {
    case EADDRINUSE:
      return fmt::format("port {} at {}: in use by another program; choose another one with --port", port, address);
    case EACCES:
      return fmt::format("port {}: permission denied; choose one above 1023 with --port", port);
    case EADDRNOTAVAIL:
      return fmt::format("--address {}: no address of this machine", address);
    default:
      return fmt::format("port {} at {}: cannot be used: {}", port, address, strerror(error));
  }
}

bool is_loopback(const sockaddr_storage& address) {
  if (address.ss_family == AF_INET) {
    in_addr in{};
    (void)memcpy(&in, &reinterpret_cast<const sockaddr_in&>(address).sin_addr, sizeof in);
    return (ntohl(in.s_addr) >> 24) == 127;
  }
  in6_addr in{};
  (void)memcpy(&in, &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr, sizeof in);
  return IN6_IS_ADDR_LOOPBACK(&in);
}

}  // namespace

std::string numeric_address(const sockaddr* address, socklen_t length) {
  std::array<char, NI_MAXHOST> text{};
  if (getnameinfo(address, length, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST) != 0) {
    return "";
  }
  std::string out = text.data();
  // One socket may serve both families; the older one's clients are known by their own address.
  constexpr std::string_view MAPPED = "::ffff:";
  return out.starts_with(MAPPED) && out.find('.') != std::string::npos ? out.substr(MAPPED.size()) : out;
}

std::string Listener::url() const {
  if (address == "0.0.0.0" || address == "::") {
    return fmt::format("http://localhost:{}/", port);
  }
  const bool is_v6 = address.find(':') != std::string::npos;
  return is_v6 ? fmt::format("http://[{}]:{}/", address, port) : fmt::format("http://{}:{}/", address, port);
}

Listener listen_at(const std::string& address, int port) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const std::string numeric = address == "localhost" ? "127.0.0.1" : address;
  if (numeric.empty() || getaddrinfo(numeric.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
    throw Failure(fmt::format("--address {}: no address; give one such as 127.0.0.1, ::1 or 0.0.0.0", address),
                  EXIT_USAGE);
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  Listener out;
  out.socket = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int yes = 1;
  // A server that was ended a moment ago keeps nobody from the port; one that still listens does.
  if (out.socket < 0 || setsockopt(out.socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0 ||
      bind(out.socket, found->ai_addr, found->ai_addrlen) != 0 || listen(out.socket, BACKLOG) != 0) {
    const int error = errno;
    if (out.socket >= 0) {
      (void)close(out.socket);
    }
    throw Failure(why(error, address, port));
  }
  sockaddr_storage bound{};
  socklen_t length = sizeof bound;
  (void)getsockname(out.socket, reinterpret_cast<sockaddr*>(&bound), &length);
  out.address = numeric_address(reinterpret_cast<const sockaddr*>(&bound), length);
  out.port = ntohs(bound.ss_family == AF_INET ? reinterpret_cast<const sockaddr_in&>(bound).sin_port
                                              : reinterpret_cast<const sockaddr_in6&>(bound).sin6_port);
  out.loopback = is_loopback(bound);
  return out;
}
