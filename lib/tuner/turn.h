// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>

// Whose turn it is to tune: each tuning takes one, which ends the one before, as cancelling does. Not installed.
// Any-thread. Waiting tunings look at it every 50 ms.
class Turns {
 public:
  int take() { return ++last_; }
  void cancel() { ended_ = last_.load(); }
  // From now on every turn is over as it begins.
  void close() { closed_ = true; }
  bool is_newest(int turn) const { return last_ == turn; }
  bool is_over(int turn) const { return last_ != turn || ended_ == turn || closed_; }

 private:
  std::atomic<int> last_{0};
  std::atomic<int> ended_{0};
  std::atomic<bool> closed_{false};
};

// One of them.
class Turn {
 public:
  explicit Turn(Turns& turns) : turns_(turns), number_(turns.take()) {}
  bool over() const { return turns_.is_over(number_); }
  // False once another tuning has begun.
  bool newest() const { return turns_.is_newest(number_); }

 private:
  const Turns& turns_;
  const int number_;
};
