// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/rules.h"

#include <errno.h>
#include <linux/dvb/frontend.h>
#include <string.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <vector>

#include "base/ids.h"
#include "softdvb/model/clock.h"
#include "softdvb/model/faults.h"
#include "softdvb/model/frontend_calls.h"
#include "softdvb/model/frontend_core.h"
#include "softdvb/model/plug.h"
#include "softdvb/model/usage_error.h"

namespace softdvb {

uint64_t parse_number(const std::string& text, const std::string& what, uint64_t max) {
  char* end = nullptr;
  errno = 0;
  // Base 0 takes hexadecimal as well, in which PIDs and status bits are usually written.
  const unsigned long long value = std::strtoull(text.c_str(), &end, 0);
  // strtoull makes a large number of a negative one without complaint.
  if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value > max)
    throw Usage_error(what + ": '" + text + "' is not a number from 0 to " + std::to_string(max));
  return value;
}

static double parse_decimal(const std::string& text, const std::string& what) {
  std::istringstream in(text);
  // A decimal point is one wherever the user lives.
  in.imbue(std::locale::classic());
  double value = 0;
  if (!(in >> value) || in.peek() != EOF || !std::isfinite(value) || value < 0 || value > 4e9)
    throw Usage_error(what + ": '" + text + "' is not a positive number");
  return value;
}

uint64_t parse_seconds(const std::string& text, const std::string& what) {
  return static_cast<uint64_t>(parse_decimal(text, what) * 1e9);
}

double parse_positive(const std::string& text, const std::string& what) {
  const double value = parse_decimal(text, what);
  if (value <= 0)
    throw Usage_error(what + ": '" + text + "' is not a positive number");
  return value;
}

std::string trimmed(const std::string& text) {
  const size_t from = text.find_first_not_of(" \t\r\n");
  return from == std::string::npos ? "" : text.substr(from, text.find_last_not_of(" \t\r\n") - from + 1);
}

// Takes "MARKvalue" off the end of `text`; empty when there is none.
// Found from the end, because globs and words before it may hold the same mark.
static std::string take_suffix(std::string& text, char mark) {
  const size_t at = text.rfind(mark);
  if (at == std::string::npos)
    return "";
  std::string value = trimmed(text.substr(at + 1));
  text = trimmed(text.substr(0, at));
  return value;
}

struct Which_calls {
  uint32_t from = 1;
  uint32_t count = 0;
};

// "@FIRST" and "*COUNT", in any order. "@K" alone is the Kth call only.
static Which_calls take_which(std::string& text, const std::string& what) {
  // FIRST and COUNT are added to each other, which must fit.
  constexpr uint64_t MAX = std::numeric_limits<uint32_t>::max() / 2;
  Which_calls which;
  bool first_given = false;
  for (int i = 0; i < 2; ++i) {
    const size_t at = text.find_last_of("@*");
    if (at == std::string::npos)
      break;
    const char mark = text[at];
    const uint32_t value = static_cast<uint32_t>(parse_number(take_suffix(text, mark), what, MAX));
    if (value == 0)
      throw Usage_error(what + ": '" + mark + "0' means no call at all");
    (mark == '@' ? which.from : which.count) = value;
    first_given = first_given || mark == '@';
  }
  if (first_given && which.count == 0)
    which.count = 1;
  return which;
}

static void split(const std::string& text, std::string& key, std::string& value, const std::string& what,
                  const std::string& form) {
  const size_t at = text.find('=');
  if (at == std::string::npos)
    throw Usage_error(what + ": '" + text + "' is not of the form " + form);
  key = trimmed(text.substr(0, at));
  value = trimmed(text.substr(at + 1));
}

static int errno_by_name(const std::string& name) {
  if (!name.empty() && name[0] >= '0' && name[0] <= '9')
    return static_cast<int>(parse_number(name, "errno", 4095));
  // The C library knows the names; a table here would differ from machine to machine.
  for (int error = 1; error < 200; ++error) {
    const char* known = strerrorname_np(error);
    if (known != nullptr && name == known)
      return error;
  }
  throw Usage_error("fault: '" + name + "' is no name of an error, such as EIO");
}

// The record is shared between processes, so texts are arrays in it and not strings.
static void copy_text(char* to, size_t size, const std::string& from, const std::string& what) {
  if (from.size() >= size)
    throw Usage_error(what + ": '" + from + "' is too long");
  from.copy(to, from.size());
  to[from.size()] = '\0';
}

void add_fault(Shared& s, const std::string& text) {
  std::string call;
  std::string value;
  split(text, call, value, "fault", "CALL[(GLOB)]=ERRNO[@FIRST][*COUNT]");
  std::string target;
  if (const size_t at = call.find('('); at != std::string::npos && call.back() == ')') {
    target = call.substr(at + 1, call.size() - at - 2);
    call = trimmed(call.substr(0, at));
  }
  if (!is_fault_call(call))
    throw Usage_error("fault: '" + call + "' is no call that can be made to fail");
  const Which_calls which = take_which(value, "fault");
  const int number = s.fault_count.load();
  if (number >= MAX_FAULTS)
    throw Usage_error("fault: more than " + std::to_string(MAX_FAULTS));
  // Filled in first and counted last: other processes read the list without a lock.
  Fault& fault = s.fault[number];
  copy_text(fault.call, sizeof fault.call, call, "fault");
  copy_text(fault.target, sizeof fault.target, target, "fault");
  fault.error = errno_by_name(value);
  fault.from = which.from;
  fault.count = which.count;
  // A place that "clear" gave free still has the count of its former fault.
  fault.seen.store(0);
  s.fault_count.store(number + 1, std::memory_order_release);
}

void add_section_fault(Shared& s, int adapter, const std::string& text) {
  std::string where;
  std::string kind;
  split(text, where, kind, "section", "PID[/TABLE]=KIND[@FIRST][*COUNT][+SECONDS]");
  const int number = s.section_fault_count.load();
  if (number >= MAX_SECTION_FAULTS)
    throw Usage_error("section: more than " + std::to_string(MAX_SECTION_FAULTS));
  Section_fault& fault = s.section_fault[number];
  fault.adapter = adapter;
  const std::string table = take_suffix(where, '/');
  fault.table = table.empty() ? -1 : static_cast<int>(parse_number(table, "section: table", 255));
  fault.pid = static_cast<int>(parse_number(where, "section: PID", pid::LAST));
  // From the end to the front, as the suffixes stand; "cut:BYTES" has to be left.
  const std::string at = take_suffix(kind, '+');
  fault.at_ns = at.empty() ? 0 : parse_seconds(at, "section: time");
  const Which_calls which = take_which(kind, "section");
  fault.from = which.from;
  fault.count = which.count;
  fault.size = 0;
  fault.seen.store(0);
  if (kind == "drop") {
    fault.kind = Section_fault_kind::DROP;
  } else if (kind == "silence") {
    fault.kind = Section_fault_kind::SILENCE;
  } else if (kind == "double") {
    fault.kind = Section_fault_kind::DOUBLE;
  } else if (kind == "crc") {
    fault.kind = Section_fault_kind::CRC;
  } else if (kind.rfind("cut:", 0) == 0) {
    fault.kind = Section_fault_kind::CUT;
    fault.size = static_cast<uint32_t>(parse_number(kind.substr(4), "section: cut", 4096));
    if (fault.size == 0)
      throw Usage_error("section: cut:0 leaves nothing; use drop");
  } else {
    throw Usage_error("section: '" + kind + "' is none of drop, cut:BYTES, double, crc, silence");
  }
  s.section_fault_count.store(number + 1, std::memory_order_release);
}

static const char* const READING_NAMES[] = {"status", "strength", "snr", "ber", "ucblocks", "level", "cnr"};

// Decibels, with a sign and decimals.
static uint32_t parse_decibels(const std::string& text, const std::string& what) {
  const bool below = !text.empty() && text[0] == '-';
  const double value = parse_decimal(text.substr(below ? 1 : 0), what);
  if (value > 1000)
    throw Usage_error(what + ": '" + text + "' is no number of decibels");
  const int32_t thousandths = static_cast<int32_t>(std::lround(value * 1000));
  return static_cast<uint32_t>(below ? -thousandths : thousandths);
}

static bool reading_by_name(const std::string& name, Reading& reading) {
  for (size_t i = 0; i < std::size(READING_NAMES); ++i) {
    if (name != READING_NAMES[i])
      continue;
    reading = static_cast<Reading>(i);
    return true;
  }
  return false;
}

static void add_step(Adapter& a, const std::string& freq, Reading reading, const std::string& value, uint64_t at_ns) {
  // The kernel hands these two out with 16 bits.
  const bool is_short = reading == Reading::STRENGTH || reading == Reading::SNR;
  const char* name = READING_NAMES[static_cast<int>(reading)];
  const uint32_t number = reading >= Reading::LEVEL
                              ? parse_decibels(value, name)
                              : static_cast<uint32_t>(parse_number(value, name, is_short ? 0xFFFFu : 0xFFFFFFFFu));
  const uint32_t hz =
      freq.empty() || freq == "*" ? 0 : static_cast<uint32_t>(parse_number(freq, "frequency", 0xFFFFFFFF));
  // What is replaced needs no place, so a value can be changed as often as one likes.
  int number_of_step = a.step_count;
  for (int i = 0; i < a.step_count; ++i)
    if (a.step[i].freq == hz && a.step[i].reading == reading && a.step[i].at_ns == at_ns)
      number_of_step = i;
  if (number_of_step >= MAX_SIGNAL_STEPS)
    throw Usage_error("signal: more than " + std::to_string(MAX_SIGNAL_STEPS));
  // Later entries win, so a replaced one moves to the end.
  for (int i = number_of_step; i + 1 < a.step_count; ++i)
    a.step[i] = a.step[i + 1];
  if (number_of_step == a.step_count)
    ++a.step_count;
  a.step[a.step_count - 1] = {hz, reading, at_ns, number};
}

void add_signal(Adapter& a, const std::string& text) {
  const std::string form = "FREQ:READING=VALUE[@SECONDS]";
  std::string key;
  std::string value;
  split(text, key, value, "signal", form);
  const size_t colon = key.find(':');
  if (colon == std::string::npos)
    throw Usage_error("signal: '" + text + "' is not of the form " + form);
  Reading reading{};
  if (!reading_by_name(trimmed(key.substr(colon + 1)), reading))
    throw Usage_error("signal: '" + key.substr(colon + 1) +
                      "' is none of status, strength, snr, ber, ucblocks, level, cnr");
  const std::string at = take_suffix(value, '@');
  add_step(a, trimmed(key.substr(0, colon)), reading, value, at.empty() ? 0 : parse_seconds(at, "signal: time"));
}

static Adapter& adapter_by_number(Shared& s, const std::string& text) {
  Adapter* a = find_adapter(s, static_cast<int>(parse_number(text, "adapter", 99)));
  if (a == nullptr)
    throw Usage_error("control: there is no adapter " + text);
  return *a;
}

static void control_tune(Shared& s, Adapter& a, const std::string& freq) {
  const uint32_t hz = static_cast<uint32_t>(parse_number(freq, "tune: frequency", 0xFFFFFFFF));
  const Tuning tuning = tuning_to(a, hz);
  frontend_tune(a, tuning, adapter_now_ns(s));
  a.fe.externally_tuned = 1;
}

void run_control(Shared& s, const std::string& line) {
  std::string left = trimmed(line);
  std::string right;
  if (const size_t at = left.find('='); at != std::string::npos) {
    right = trimmed(left.substr(at + 1));
    left = trimmed(left.substr(0, at));
  }
  std::istringstream in(left);
  std::vector<std::string> words;
  for (std::string word; in >> word;)
    words.push_back(word);
  if (words.empty() || words[0][0] == '#')
    return;
  const Shared_lock lock(s);
  Adapter* a = s.adapter_count > 0 ? &s.adapter[0] : nullptr;
  size_t at = 0;
  if (words[0] == "adapter" && words.size() > 2) {
    a = &adapter_by_number(s, words[1]);
    at = 2;
  }
  const std::string& key = words[at];
  const std::string argument = at + 1 < words.size() ? words[at + 1] : "";
  Reading reading{};
  if (key == "clear" && argument == "faults") {
    s.fault_count.store(0);
  } else if (key == "clear" && argument == "sections") {
    s.section_fault_count.store(0);
  } else if (key == "fault") {
    add_fault(s, left.substr(left.find("fault") + 5) + "=" + right);
  } else if (a == nullptr) {
    throw Usage_error("control: there is no adapter");
  } else if (key == "section") {
    add_section_fault(s, at == 2 ? a->number : -1, argument + "=" + right);
  } else if (key == "unplug") {
    unplug(*a);
  } else if (key == "plug") {
    plug_in(*a);
  } else if (key == "busy" || key == "free") {
    a->busy = key == "busy" ? 1 : 0;
  } else if (key == "tune") {
    control_tune(s, *a, argument);
  } else if (reading_by_name(key, reading)) {
    for (Adapter& each : frontends_of(*a))
      add_step(each, argument, reading, right, 0);
  } else {
    throw Usage_error("control: '" + trimmed(line) + "' is not understood");
  }
}

}  // namespace softdvb
