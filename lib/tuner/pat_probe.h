// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

class Turn;

// Looks whether a transport stream arrives, with a filter of its own that is closed behind it. Not installed.
// Any-thread.
class Pat_probe {
 public:
  // `demux` is the demultiplexer's path.
  explicit Pat_probe(std::string demux) : demux_(std::move(demux)) {}

  // Waits for one PAT (ISO/IEC 13818-1, 2.4.4.3) that begins from now on. UNKNOWN: the demultiplexer cannot be used,
  // which those who need it will say. Prints nothing.
  enum class Answer { CAME, NONE, UNKNOWN };
  Answer wait(int timeout_ms, const Turn& turn) const;

 private:
  std::string demux_;
};
