// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "base/types.h"

// How the library's own code names an input and a multiplex; not installed. HF_CONN_ID and DVB_TYPE_ID are plain
// numbers, and public operations take them in different orders: inside, the two are types of their own, which the
// compiler tells apart.

enum class Connector : int {};
enum class Delivery : int {};

constexpr int number(Connector connector) noexcept {
  return static_cast<int>(connector);
}

constexpr int number(Delivery delivery) noexcept {
  return static_cast<int>(delivery);
}

// The input of an adapter: RF connector and delivery type. Write Input{Connector{...}, Delivery{...}}.
struct Input {
  Connector connector;
  Delivery delivery;
};

// One multiplex: where it is received, and its centre frequency in Hz.
struct Multiplex {
  Input input;
  int freq;
};
