// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <linux/dvb/frontend.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <tuple>

#include <fmt/format.h>

#include "tools/channels/list_format.h"

// channels.conf of vdr, see vdr(5), in the form in which vdr itself writes it.
namespace {

constexpr size_t MOST_SYSTEMS = 12;
constexpr int FIRST_SYSTEM = 0x100;  // what is smaller names a device
constexpr int NO_PCR = 0x1FFF;

// Descriptor tags by which vdr knows the two.
constexpr int DOLBY_DIGITAL = 0x6A;
constexpr int DOLBY_DIGITAL_PLUS = 0x7A;

std::string bandwidth(int hz) {
  return hz == 1712000 ? "1712" : std::to_string(hz / 1000000);
}

std::string constellation(int modulation) {
  switch (modulation) {
    case QPSK:
      return "2";
    case QAM_16:
      return "16";
    case QAM_64:
      return "64";
    case QAM_256:
      return "256";
    default:
      return "999";
  }
}

std::string parameters(const Delivery& delivery) {
  const bool second = delivery.system == SYS_DVBT2;
  std::string out = delivery.bandwidth_hz == 0 ? "" : "B" + bandwidth(delivery.bandwidth_hz);
  out += "C999D999G999M" + constellation(delivery.modulation);
  if (second && delivery.pipe >= 0) {
    out += fmt::format("P{}", delivery.pipe);
  }
  return out + (second ? "S1" : "S0") + "T999" + (second ? "X999" : "") + "Y999";
}

bool is_code(const std::string& language) {
  return language.size() == 3 &&
         std::all_of(language.begin(), language.end(), [](unsigned char c) { return c < 0x80 && isalpha(c) != 0; });
}

// "=est+eng" of those that fit.
std::string languages(const Stream& stream, size_t most, bool typed) {
  std::string out;
  size_t count = 0;
  for (const std::string& language : stream.languages) {
    if (is_code(language) && count < most) {
      out += (count++ == 0 ? "" : "+") + language;
    }
  }
  return out.empty() && !typed ? "" : "=" + out;
}

void add(std::string* list, const std::string& one) {
  *list += (list->empty() ? "" : ",") + one;
}

std::string video(const Service& service) {
  const auto stream =
      std::find_if(service.streams.begin(), service.streams.end(), [](const Stream& s) { return s.kind == "video"; });
  const int pid = stream == service.streams.end() ? 0 : stream->pid;
  std::string out = std::to_string(pid);
  if (service.pcr_pid > 0 && service.pcr_pid < NO_PCR && service.pcr_pid != pid) {
    out += fmt::format("+{}", service.pcr_pid);
  }
  return pid == 0 ? out : fmt::format("{}={}", out, stream->stream_type);
}

std::string audio(const Service& service) {
  std::string plain;
  std::string dolby;
  for (const Stream& stream : service.streams) {
    if (stream.kind != "audio") {
      continue;
    }
    const auto typed = [&stream](int type) {
      return fmt::format("{}{}@{}", stream.pid, languages(stream, 2, true), type);
    };
    if (stream.codec == "AC-3") {
      add(&dolby, typed(DOLBY_DIGITAL));
    } else if (stream.codec == "E-AC-3") {
      add(&dolby, typed(DOLBY_DIGITAL_PLUS));
    } else if (stream.stream_type == 0x03 || stream.stream_type == 0x04 || stream.stream_type == 0x0F ||
               stream.stream_type == 0x11) {
      add(&plain, typed(stream.stream_type));
    }
  }
  return (plain.empty() ? "0" : plain) + (dolby.empty() ? "" : ";" + dolby);
}

std::string texts(const Service& service) {
  std::string teletext = "0";
  std::string subtitles;
  for (const Stream& stream : service.streams) {
    if (stream.kind == "teletext" && teletext == "0") {
      teletext = std::to_string(stream.pid);
    } else if (stream.kind == "subtitles" && stream.codec != "TTML") {
      add(&subtitles, std::to_string(stream.pid) + languages(stream, 1, false));
    }
  }
  return teletext + (subtitles.empty() ? "" : ";" + subtitles);
}

std::string systems(const Service& service) {
  std::vector<int> all;
  const auto take = [&all](int system) {
    if (system >= FIRST_SYSTEM && std::find(all.begin(), all.end(), system) == all.end() && all.size() < MOST_SYSTEMS) {
      all.push_back(system);
    }
  };
  for (const Service_ca& ca : service.ca) {
    take(ca.system);
  }
  for (const Stream& stream : service.streams) {
    take(stream.ca_system);
  }
  std::string out;
  for (const int system : all) {
    add(&out, fmt::format("{:X}", system));
  }
  return out.empty() ? "0" : out;
}

std::string full_name(const List_entry& channel) {
  std::string provider = channel.service->provider;
  std::replace(provider.begin(), provider.end(), ':', '|');
  return provider.empty() ? channel.name : channel.name + ";" + provider;
}

}  // namespace

List_text write_vdr(const std::vector<Service>& services, const List_options& /*options*/) {
  std::string out;
  int next = 1;
  // Of channels with the same ids vdr keeps one, unless the last number, which nobody broadcasts, tells them apart.
  std::map<std::tuple<int, int, int>, int> copies;
  for (const List_entry& channel : list_entries(services)) {
    const Service& service = *channel.service;
    if (service.lcn != NO_LCN && service.lcn > next) {
      out += fmt::format(":@{}\n", service.lcn);
      next = service.lcn;
    }
    ++next;
    const int copy = copies[{service.original_network_id, service.transport_stream_id, service.program_number}]++;
    // In kHz, which vdr takes as well as Hz, because players that read this file take nothing else.
    out +=
        fmt::format("{}:{}:{}:T:0:{}:{}:{}:{}:{}:{}:{}:{}\n", full_name(channel), (service.delivery.freq + 500) / 1000,
                    parameters(service.delivery), video(service), audio(service), texts(service), systems(service),
                    service.program_number, service.original_network_id, service.transport_stream_id, copy);
  }
  return {out, {}};
}
