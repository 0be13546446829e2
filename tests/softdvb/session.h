// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dirent.h>

#include <set>

#include "softdvb/device_support.h"

namespace device {

// A section of section_of() by its name, SIZE#EXTENSION, with "!" behind it one with a wrong CRC.
inline Bytes section_named(const std::string& name) {
  Bytes section = section_of(std::stoul(name), static_cast<uint16_t>(std::stoi(name.substr(name.find('#') + 1))));
  return name.back() == '!' ? damaged(section) : section;
}

// The name of a whole section of that kind, of anything else the size.
inline std::string name_of(const Bytes& got) {
  const std::string size = std::to_string(got.size());
  if (got.size() < 12)
    return size;
  const std::string name = size + "#" + std::to_string(got[3] << 8 | got[4]);
  return got == section_named(name) ? name : got == section_named(name + "!") ? name + "!" : size;
}

// The names of all that is there to be read.
inline std::string received(int fd) {
  std::string names;
  for (Bytes s; !(s = read_bytes(fd)).empty();)
    names += (names.empty() ? "" : " ") + name_of(s);
  return names;
}

// What a program does with the devices, written as steps with what comes out of them:
//
//   EXPECT_THAT("filter 256, send 100#1, read = 100#1, read = EAGAIN", plays());
//
// A step that gives 0 or nothing stands alone, a failure is told by the name of its errno. "WHO: STEP" is a step on a
// handle of its own; those whose names begin with "frontend" are frontends, with "reader"
// frontends opened for reading only, with "dvr" recorders; with "second" before it, of frontend1. A handle is opened
// when a step first needs it and closed at the end. Steps of a demultiplexer:
//   filter PID [idle] [crc] [oneshot] [timeout:MS] [table:ID], start, stop, buffer BYTES
//   send NAME [PID]  the section of that name (see above), on PID 256 where none is given
//   packets PID dvr|own|payload|decoder [idle] [type:NUMBER]  a packet filter and where its packets go
//   add PID, remove PID, decoder (PIDs of its audio and video)
//   read [BYTES]     its name
//   ready            what poll and select agree on: data, error, gone, nothing
//   await            until there is something, "nothing" after 5 s
// Of a frontend, readings in hexadecimal digits:
//   tune HZ [bw:MHZ] [mode:NUMBER], status, strength, snr, ber, ucblocks, tuning (all parameters), event [tuning],
//   signal HZ STATUS
//   info             name, type and limits
//   systems          what it receives, in order
//   seek SYSTEM HZ [bw:MHZ] [mode:NUMBER] [plp:N]   by properties, 8 MHz where nothing else is given
//   system SYSTEM    sets that property and nothing else
//   oneshot          no repetition, until the next opening for writing
//   found            system and frequency by properties
//   stats            statistics: relative, decibel, counter, unknown (now) or none (never)
//   values           strength and CNR among them
//   rate             of wrong bits among all
//   nodes            the files in the adapter's folder
// Of all: open, close, wait MS, fault CALL ERRNO, control LINE. "waits MS STEP" is STEP, which takes at least that
// long.
class Session {
 public:
  // The steps once more, with what really came out.
  std::string play(const std::string& steps) {
    std::string played;
    for (size_t at = 0, end = 0; end != std::string::npos; at = end + 2) {
      end = steps.find(", ", at);
      std::string step = steps.substr(at, end == std::string::npos ? end : end - at);
      step.resize(std::min(step.find(" = "), step.size()));
      const std::string outcome = outcome_of(step);
      played += (at == 0 ? "" : ", ") + step + (outcome.empty() ? "" : " = " + outcome);
    }
    return played;
  }

 private:
  // The errno's name of a call that failed, else the text.
  static std::string told(long outcome, const std::string& text = "") {
    if (outcome != -1)
      return text;
    const char* name = strerrorname_np(errno);
    return name == nullptr ? std::to_string(errno) : name;
  }

  static std::string hex(unsigned value) {
    std::ostringstream text;
    text << std::hex << value;
    return text.str();
  }

  static std::string text_of(const dvb_frontend_parameters& p) {
    const dvb_ofdm_parameters& o = p.u.ofdm;
    std::ostringstream text;
    text << p.frequency << " bw=" << o.bandwidth << " hp=" << o.code_rate_HP << " lp=" << o.code_rate_LP
         << " const=" << o.constellation << " mode=" << o.transmission_mode << " guard=" << o.guard_interval
         << " hier=" << o.hierarchy_information;
    return text.str();
  }

  // Poll's bits and select's three sets, which must agree.
  static std::string readiness(int fd) {
    fd_set sets[3];
    for (fd_set& set : sets) {
      FD_ZERO(&set);
      FD_SET(fd, &set);
    }
    timeval none{};
    select(fd + 1, &sets[0], &sets[1], &sets[2], &none);
    std::string both = hex(static_cast<unsigned>(ready(fd)));
    for (const fd_set& set : sets)
      both += FD_ISSET(fd, &set) ? '1' : '0';
    return both == "0000"                            ? ""
           : both == hex(READABLE) + "101"           ? "data"
           : both == hex(READABLE | POLLERR) + "111" ? "error"
           : both == hex(POLLERR) + "110"            ? "gone"
                                                     : both;
  }

  static int filter(int fd, std::istream& words) {
    int pid = 0;
    words >> pid;
    dmx_sct_filter_params p = all_of(pid);
    for (std::string word; words >> word;) {
      const int value = std::atoi(word.substr(word.find(':') + 1).c_str());
      p.flags &= word == "idle" ? ~uint32_t{DMX_IMMEDIATE_START} : ~0u;
      p.flags |= word == "crc" ? DMX_CHECK_CRC : word == "oneshot" ? DMX_ONESHOT : 0;
      if (word.rfind("timeout:", 0) == 0)
        p.timeout = static_cast<uint32_t>(value);
      if (word.rfind("table:", 0) == 0)
        p.filter = table_of(pid, value).filter;
    }
    return set_filter(fd, p);
  }

  static int packet_filter(int fd, std::istream& words) {
    int pid = 0;
    std::string output;
    words >> pid >> output;
    dmx_pes_filter_params p{};
    p.pid = static_cast<uint16_t>(pid);
    p.pes_type = DMX_PES_OTHER;
    p.output = output == "dvr"       ? DMX_OUT_TS_TAP
               : output == "own"     ? DMX_OUT_TSDEMUX_TAP
               : output == "payload" ? DMX_OUT_TAP
                                     : DMX_OUT_DECODER;
    p.flags = DMX_IMMEDIATE_START;
    for (std::string word; words >> word;) {
      if (word == "idle")
        p.flags = 0;
      else
        p.pes_type = static_cast<dmx_ts_pes>(std::stoi(word.substr(word.find(':') + 1)));
    }
    return ioctl(fd, DMX_SET_PES_FILTER, &p);
  }

  static int change_pid(int fd, unsigned long request, std::istream& words) {
    const auto pid = static_cast<uint16_t>(number(words));
    return ioctl(fd, request, &pid);
  }

  // The first two, audio and video.
  static std::string decoder_pids(int fd) {
    uint16_t pids[5]{};
    const int outcome = ioctl(fd, DMX_GET_PES_PIDS, pids);
    return told(outcome, std::to_string(pids[0]) + " " + std::to_string(pids[1]));
  }

  static unsigned number(std::istream& words, unsigned otherwise = 0) {
    unsigned value = 0;
    return words >> value ? value : otherwise;
  }

  static std::string read_one(int fd, size_t size) {
    Bytes buffer(size);
    const ssize_t got = read(fd, buffer.data(), size);
    buffer.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return told(got, got == 0 ? "" : name_of(buffer));
  }

  // The value of "name:VALUE" among the words.
  static long option(const std::string& words, const std::string& name, long otherwise) {
    const size_t at = words.find(" " + name + ":");
    return at == std::string::npos ? otherwise : std::stol(words.substr(at + name.size() + 2));
  }

  static std::string old_tuning(int fd, std::istream& words) {
    const unsigned freq = number(words);
    std::string rest;
    std::getline(words, rest);
    dvb_frontend_parameters p = automatic(freq);
    static const std::map<long, fe_bandwidth> BANDWIDTHS{
        {0, BANDWIDTH_AUTO}, {7, BANDWIDTH_7_MHZ}, {8, BANDWIDTH_8_MHZ}};
    p.u.ofdm.bandwidth = BANDWIDTHS.at(option(rest, "bw", 0));
    p.u.ofdm.transmission_mode = static_cast<fe_transmit_mode>(option(rest, "mode", TRANSMISSION_MODE_AUTO));
    return told(ioctl(fd, FE_SET_FRONTEND, &p));
  }

  static const std::map<std::string, uint32_t>& system_numbers() {
    static const std::map<std::string, uint32_t> NUMBERS{{"T", SYS_DVBT},         {"T2", SYS_DVBT2},
                                                         {"C", SYS_DVBC_ANNEX_A}, {"C/C", SYS_DVBC_ANNEX_C},
                                                         {"ISDBT", SYS_ISDBT},    {"any", SYS_UNDEFINED}};
    return NUMBERS;
  }

  static std::string system_name(uint32_t number) {
    for (const auto& [name, value] : system_numbers())
      if (value == number)
        return name;
    return std::to_string(number);
  }

  static int set(int fd, const std::vector<std::pair<uint32_t, uint32_t>>& wanted) {
    std::vector<dtv_property> list(wanted.size());
    for (size_t i = 0; i < wanted.size(); ++i) {
      list[i].cmd = wanted[i].first;
      list[i].u.data = wanted[i].second;
    }
    const dtv_properties all{static_cast<uint32_t>(list.size()), list.data()};
    return ioctl(fd, FE_SET_PROPERTY, &all);
  }

  static std::string seek(int fd, std::istream& words) {
    std::string system;
    words >> system;
    const unsigned freq = number(words);
    std::string rest;
    std::getline(words, rest);
    return told(set(fd, {{DTV_CLEAR, 0},
                         {DTV_DELIVERY_SYSTEM, system_numbers().at(system)},
                         {DTV_FREQUENCY, freq},
                         {DTV_BANDWIDTH_HZ, static_cast<uint32_t>(option(rest, "bw", 8)) * 1000000},
                         {DTV_TRANSMISSION_MODE, static_cast<uint32_t>(option(rest, "mode", TRANSMISSION_MODE_AUTO))},
                         {DTV_STREAM_ID, static_cast<uint32_t>(option(rest, "plp", NO_STREAM_ID_FILTER))},
                         {DTV_TUNE, 0}}));
  }

  static std::string set_system(int fd, std::istream& words) {
    std::string system;
    words >> system;
    return told(set(fd, {{DTV_DELIVERY_SYSTEM, system_numbers().at(system)}}));
  }

  // `text` of the properties, or the errno.
  template <typename Text>
  static std::string properties(int fd, const std::vector<uint32_t>& commands, const Text& text) {
    std::vector<dtv_property> list(commands.size());
    for (size_t i = 0; i < commands.size(); ++i)
      list[i].cmd = commands[i];
    const dtv_properties all{static_cast<uint32_t>(list.size()), list.data()};
    const int outcome = ioctl(fd, FE_GET_PROPERTY, &all);
    return told(outcome, outcome == 0 ? text(list) : "");
  }

  static std::string systems(int fd) {
    return properties(fd, {DTV_ENUM_DELSYS}, [](const std::vector<dtv_property>& list) {
      std::string names;
      for (uint32_t i = 0; i < list[0].u.buffer.len; ++i)
        names += (i == 0 ? "" : " ") + system_name(list[0].u.buffer.data[i]);
      return names;
    });
  }

  static std::string found(int fd) {
    return properties(fd, {DTV_DELIVERY_SYSTEM, DTV_FREQUENCY}, [](const std::vector<dtv_property>& list) {
      return system_name(list[0].u.data) + " " + std::to_string(list[1].u.data);
    });
  }

  static std::string stats(int fd) {
    const std::vector<uint32_t> commands{DTV_STAT_SIGNAL_STRENGTH, DTV_STAT_CNR, DTV_STAT_PRE_ERROR_BIT_COUNT,
                                         DTV_STAT_POST_ERROR_BIT_COUNT, DTV_STAT_ERROR_BLOCK_COUNT};
    return properties(fd, commands, [](const std::vector<dtv_property>& list) {
      static const char* const SCALES[] = {"unknown", "decibel", "relative", "counter"};
      std::string names;
      for (const dtv_property& p : list)
        names += (names.empty() ? "" : " ") + std::string(p.u.st.len == 0 ? "none" : SCALES[p.u.st.stat[0].scale]);
      return names;
    });
  }

  // Strength and carrier-to-noise ratio, whatever the scale.
  static std::string values(int fd) {
    return properties(fd, {DTV_STAT_SIGNAL_STRENGTH, DTV_STAT_CNR}, [](const std::vector<dtv_property>& list) {
      std::string text;
      for (const dtv_property& p : list)
        text += (text.empty() ? "" : " ") + std::to_string(p.u.st.len == 0 ? 0 : p.u.st.stat[0].svalue);
      return text;
    });
  }

  // Wrong bits of all.
  static std::string rate(int fd) {
    const std::vector<uint32_t> commands{DTV_STAT_POST_ERROR_BIT_COUNT, DTV_STAT_POST_TOTAL_BIT_COUNT};
    return properties(fd, commands, [](const std::vector<dtv_property>& list) {
      const dtv_stats& wrong = list[0].u.st.stat[0];
      const dtv_stats& all = list[1].u.st.stat[0];
      return all.scale != FE_SCALE_COUNTER
                 ? "unknown"
                 : std::to_string(static_cast<double>(wrong.uvalue) / static_cast<double>(all.uvalue));
    });
  }

  static std::string nodes() {
    DIR* folder = opendir("/dev/dvb/adapter0");
    if (folder == nullptr)
      return told(-1);
    std::set<std::string> names;
    while (const dirent64* entry = readdir64(folder))
      if (entry->d_name[0] != '.')
        names.insert(entry->d_name);
    closedir(folder);
    std::string text;
    for (const std::string& name : names)
      text += (text.empty() ? "" : " ") + name;
    return text;
  }

  static std::string info(int fd) {
    dvb_frontend_info info{};
    const int outcome = ioctl(fd, FE_GET_INFO, &info);
    static const char* const TYPES[] = {"S", "C", "T", "ATSC"};
    return told(outcome, std::string(info.name) + "; " + TYPES[info.type] + " " + std::to_string(info.frequency_min) +
                             "-" + std::to_string(info.frequency_max));
  }

  static std::string tuning(int fd) {
    dvb_frontend_parameters p{};
    const int outcome = ioctl(fd, FE_GET_FRONTEND, &p);
    return told(outcome, text_of(p));
  }

  static std::string event(int fd, std::istream& words) {
    dvb_frontend_event event{};
    const int outcome = ioctl(fd, FE_GET_EVENT, &event);
    std::string with;
    words >> with;
    return told(outcome, hex(event.status) + (with == "tuning" ? " " + text_of(event.parameters) : ""));
  }

  template <typename T>
  static std::string reading(int fd, unsigned long request) {
    T value = 0x55;
    const int outcome = ioctl(fd, request, &value);
    return told(outcome, hex(value));
  }

  Fd& fd_of(const std::string& who) {
    if (const auto opened = fds_.find(who); opened != fds_.end())
      return opened->second;
    const int number = who.rfind("second", 0) == 0 ? 1 : 0;
    const std::string kind = number == 0 ? who : who.substr(6);
    const int fd = kind.rfind("frontend", 0) == 0 ? open_frontend(O_RDWR | O_NONBLOCK, number)
                   : kind.rfind("reader", 0) == 0 ? open_frontend(O_RDONLY, number)
                   : kind.rfind("dvr", 0) == 0    ? open("/dev/dvb/adapter0/dvr0", O_RDONLY | O_NONBLOCK)
                                                  : open_demux();
    return fds_.try_emplace(who, fd).first->second;
  }

  // A call's name and what it does, the rest of the step given.
  using Calls = std::map<std::string, std::function<std::string(int, std::istream&)>>;

  static const Calls& of_demux() {
    static const Calls CALLS{
        {"filter", [](int fd, std::istream& words) { return told(filter(fd, words)); }},
        {"packets", [](int fd, std::istream& words) { return told(packet_filter(fd, words)); }},
        {"add", [](int fd, std::istream& words) { return told(change_pid(fd, DMX_ADD_PID, words)); }},
        {"remove", [](int fd, std::istream& words) { return told(change_pid(fd, DMX_REMOVE_PID, words)); }},
        {"decoder", [](int fd, std::istream&) { return decoder_pids(fd); }},
        {"start", [](int fd, std::istream&) { return told(ioctl(fd, DMX_START)); }},
        {"stop", [](int fd, std::istream&) { return told(ioctl(fd, DMX_STOP)); }},
        {"buffer", [](int fd, std::istream& words) { return told(ioctl(fd, DMX_SET_BUFFER_SIZE, number(words))); }},
        {"read", [](int fd, std::istream& words) { return read_one(fd, number(words, 8192)); }},
        {"ready", [](int fd, std::istream&) { return readiness(fd); }},
        {"await", [](int fd, std::istream&) { return readable_within(fd, 5000) ? "" : "nothing"; }}};
    return CALLS;
  }

  static const Calls& of_frontend() {
    static const Calls CALLS{
        {"tune", old_tuning},
        {"seek", seek},
        {"system", set_system},
        {"oneshot",
         [](int fd, std::istream&) { return told(ioctl(fd, FE_SET_FRONTEND_TUNE_MODE, FE_TUNE_MODE_ONESHOT)); }},
        {"systems", [](int fd, std::istream&) { return systems(fd); }},
        {"found", [](int fd, std::istream&) { return found(fd); }},
        {"stats", [](int fd, std::istream&) { return stats(fd); }},
        {"values", [](int fd, std::istream&) { return values(fd); }},
        {"rate", [](int fd, std::istream&) { return rate(fd); }},
        {"info", [](int fd, std::istream&) { return info(fd); }},
        {"status", [](int fd, std::istream&) { return reading<uint32_t>(fd, FE_READ_STATUS); }},
        {"strength", [](int fd, std::istream&) { return reading<uint16_t>(fd, FE_READ_SIGNAL_STRENGTH); }},
        {"snr", [](int fd, std::istream&) { return reading<uint16_t>(fd, FE_READ_SNR); }},
        {"ber", [](int fd, std::istream&) { return reading<uint32_t>(fd, FE_READ_BER); }},
        {"ucblocks", [](int fd, std::istream&) { return reading<uint32_t>(fd, FE_READ_UNCORRECTED_BLOCKS); }},
        {"tuning", [](int fd, std::istream&) { return tuning(fd); }},
        {"event", event}};
    return CALLS;
  }

  std::string outcome_of(const std::string& step) {
    std::istringstream words(step);
    std::string verb;
    words >> verb;
    if (verb == "waits") {
      const unsigned ms = number(words);
      const double begin = begin_s_;
      std::string waiting;
      std::getline(words >> std::ws, waiting);
      const std::string outcome = outcome_of(waiting);
      return outcome + ((now_s() - begin) * 1000 < ms ? " too soon" : "");
    }
    begin_s_ = now_s();
    if (verb == "nodes")
      return nodes();
    if (verb == "control") {
      std::string line;
      std::getline(words, line);
      support::softdvb_control(line);
      return "";
    }
    std::string who = of_frontend().count(verb) != 0 ? "frontend" : "demux";
    if (verb.back() == ':') {
      who = verb.substr(0, verb.size() - 1);
      words >> verb;
    }
    std::string name;
    if (verb == "wait")
      return told(usleep(number(words) * 1000));
    if (verb == "signal" || verb == "fault") {
      std::string value;
      words >> name >> value;
      support::softdvb_control((verb == "signal" ? "adapter 0 status " : "fault ") + name + " = " + value);
      return "";
    }
    if (verb == "send") {
      words >> name;
      send_section(section_named(name), static_cast<int>(number(words, PID)));
      return "";
    }
    Fd& fd = fd_of(who);
    if (verb == "open") {
      const std::string outcome = told(fd, "");
      if (fd < 0)
        fds_.erase(who);
      return outcome;
    }
    if (verb == "close") {
      const int outcome = fd.reset();
      fds_.erase(who);
      return told(outcome);
    }
    for (const Calls* calls : {&of_demux(), &of_frontend()})
      if (const auto call = calls->find(verb); call != calls->end())
        return call->second(fd, words);
    return "no such step";
  }

  std::map<std::string, Fd> fds_;
  double begin_s_ = now_s();  // of the last step
};

MATCHER(plays, negation ? "does not play like this" : "plays like this") {
  const std::string steps = arg;
  const std::string played = Session().play(steps);
  *result_listener << "plays like\n" << played;
  return played == steps;
}

// For what is seen only within a moment that a busy machine may miss: one of some sessions has to play like this.
MATCHER(plays_at_times, negation ? "never plays like this" : "plays like this at times") {
  constexpr int SESSIONS = 30;
  const std::string steps = arg;
  std::string played;
  for (int i = 0; i < SESSIONS && played != steps; ++i)
    played = Session().play(steps);
  *result_listener << "plays like\n" << played;
  return played == steps;
}

// Cases of one kind: what each is about, and its steps.
struct Play {
  const char* legend;
  std::string steps;
};

inline void expect_plays(std::initializer_list<Play> cases) {
  for (const Play& c : cases)
    EXPECT_THAT(c.steps, plays()) << c.legend;
}

// "read = 100#0, read = 100#1, ": `step` and a number, so often.
inline std::string counting(const std::string& step, int times) {
  std::string steps;
  for (int i = 0; i < times; ++i)
    steps += step + std::to_string(i) + ", ";
  return steps;
}

}  // namespace device
