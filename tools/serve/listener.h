// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <sys/socket.h>

#include <string>

// A socket that listens, and where.
struct Listener {
  int socket = -1;
  int port = 0;
  std::string address;  // numeric
  bool loopback = false;

  std::string url() const;  // "http://127.0.0.1:8506/"
};

// At a numeric address or "localhost"; port 0 for any that is free. Throws Failure that says what cannot be had.
Listener listen_at(const std::string& address, int port);

// "127.0.0.1", "::1"; empty when it is no such address.
std::string numeric_address(const sockaddr* address, socklen_t length);
