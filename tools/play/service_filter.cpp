// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/play/service_filter.h"

#include <base/ids.h>

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "tools/cli/text.h"

namespace {

constexpr size_t LONG_HEADER = 8;
constexpr size_t CRC = 4;
constexpr int VERSIONS = 32;

int number_at(std::span<const uint8_t> bytes, size_t at) {
  return bytes[at] << 8 | bytes[at + 1];
}
int pid_at(std::span<const uint8_t> bytes, size_t at) {
  return number_at(bytes, at) & 0x1FFF;
}
size_t length_at(std::span<const uint8_t> bytes, size_t at) {
  return static_cast<size_t>(number_at(bytes, at) & 0x0FFF);
}
int version_of(std::span<const uint8_t> section) {
  return section[5] >> 1 & 0x1F;
}
bool is_current(std::span<const uint8_t> section) {
  return (section[5] & 1) != 0;
}
bool is_of_programmes(int pid) {
  return pid > pid::LAST_RESERVED && pid < Transport_packet::NULL_PID;
}

// The PIDs of CA descriptors (ISO/IEC 13818-1, 2.6.16). False when a length is wrong.
bool read_keys(std::span<const uint8_t> descriptors, std::set<int>* pids) {
  while (descriptors.size() >= 2) {
    const size_t size = size_t{2} + descriptors[1];
    if (size > descriptors.size()) {
      return false;
    }
    if (descriptors[0] == tag::CA && size >= 6 && is_of_programmes(pid_at(descriptors, 4))) {
      pids->insert(pid_at(descriptors, 4));
    }
    descriptors = descriptors.subspan(size);
  }
  return descriptors.empty();
}

}  // namespace

Service_filter::Service_filter(int service_id)
    : service_id_(service_id),
      pat_reader_([this](auto section) { read_pat(section); }),
      pmt_reader_([this](auto section) { read_pmt(section); }),
      cat_reader_([this](auto section) { read_cat(section); }),
      sdt_reader_([this](auto section) { read_sdt(section); }),
      eit_reader_([this](auto section) { read_eit(section); }),
      pat_writer_(pid::PAT),
      pmt_writer_(0),
      sdt_writer_(pid::SDT),
      eit_writer_(pid::EIT) {
  follow();
}

std::string Service_filter::waits_for() const {
  return begun_ ? "" : pmt_pid_ < 0 ? "PAT" : "PMT";
}

std::vector<std::string> Service_filter::take_news() {
  return std::exchange(news_, {});
}

void Service_filter::packet(const Transport_packet& packet, Continuity::Verdict verdict, Bytes* out) {
  out_ = out;
  const int pid = packet.pid();
  if (pid == pid::PAT) {
    pat_reader_.packet(packet, verdict);
  } else if (pid == pmt_pid_) {
    pmt_reader_.packet(packet, verdict);
  } else if (pid == pid::SDT) {
    sdt_reader_.packet(packet, verdict);
  } else if (pid == pid::EIT) {
    eit_reader_.packet(packet, verdict);
  } else if (begun_ && passed_[static_cast<size_t>(pid)]) {
    if (pid == pid::CAT) {
      cat_reader_.packet(packet, verdict);
    }
    if (packet.is_scrambled() && !told_scrambled_ && verdict != Continuity::Verdict::DAMAGED) {
      told_scrambled_ = true;
      tell("the channel is scrambled; it is written as it is, and only a player with its key shows it");
    }
    out->insert(out->end(), packet.bytes().begin(), packet.bytes().end());
  }
}

// ISO/IEC 13818-1, 2.4.4.3
void Service_filter::read_pat(std::span<const uint8_t> section) {
  if (section[0] != table::PAT || !is_current(section)) {
    return;
  }
  if (pat_version_ != version_of(section)) {
    pat_version_ = version_of(section);
    pat_sections_.clear();
    in_pat_ = false;
  }
  pat_sections_.insert(section[6]);
  const size_t last = size_t{1} + section[7];
  for (size_t at = LONG_HEADER; at + 4 + CRC <= section.size(); at += 4) {
    const int pid = pid_at(section, at + 2);
    if (number_at(section, at) != service_id_ || service_id_ == 0 || !is_of_programmes(pid)) {
      continue;
    }
    in_pat_ = true;
    if (pmt_pid_ != pid) {
      if (pmt_pid_ < 0 && begun_) {
        tell("the channel is back in the multiplex");
      }
      pmt_pid_ = pid;
      pmt_writer_.move_to(pid);
      follow();
    }
    transport_stream_ = number_at(section, 3);
    if (begun_) {
      write_pat();
    }
    return;
  }
  if (!in_pat_ && pat_sections_.size() == last && pmt_pid_ >= 0) {
    tell("the channel has left the multiplex; waiting for it");
    pmt_pid_ = -1;
    pmt_.clear();
    follow();
  }
}

void Service_filter::tell(std::string news) {
  constexpr size_t MOST_NEWS = 10;  // until somebody takes them: a broken stream has one in each packet
  if (news_.size() < MOST_NEWS) {
    news_.push_back(std::move(news));
  }
}

void Service_filter::write_pat() {
  const auto high = [](int number) { return static_cast<uint8_t>(number >> 8); };
  const auto low = [](int number) { return static_cast<uint8_t>(number); };
  Bytes pat{table::PAT,
            0xB0,
            0,
            high(transport_stream_),
            low(transport_stream_),
            0xC1,
            0,
            0,
            high(service_id_),
            low(service_id_),
            static_cast<uint8_t>(0xE0 | pmt_pid_ >> 8),
            low(pmt_pid_)};
  if (pat_ != pat) {
    // The number of the multiplex's own at first, then one of its own: other services may come and go there.
    pat_number_ = pat_.empty() ? pat_version_.value_or(0) : (pat_number_ + 1) % VERSIONS;
    pat_ = pat;
  }
  pat[5] = static_cast<uint8_t>(0xC1 | pat_number_ << 1);
  pat_writer_.write(finished_section(pat), out_);
}

// ISO/IEC 13818-1, 2.4.4.8
std::optional<Service_filter::Program> Service_filter::program_of(std::span<const uint8_t> section) {
  constexpr size_t FIXED = 12;
  if (section.size() < FIXED + CRC) {
    return std::nullopt;
  }
  Program out;
  out.pcr_pid = pid_at(section, 8);
  std::span<const uint8_t> rest = section.subspan(FIXED, section.size() - FIXED - CRC);
  const size_t info = length_at(section, 10);
  if (info > rest.size() || !read_keys(rest.first(info), &out.keys)) {
    return std::nullopt;
  }
  rest = rest.subspan(info);
  while (!rest.empty()) {
    if (rest.size() < 5 || 5 + length_at(rest, 3) > rest.size() ||
        !read_keys(rest.subspan(5, length_at(rest, 3)), &out.keys)) {
      return std::nullopt;
    }
    if (is_of_programmes(pid_at(rest, 1))) {
      out.streams.insert(pid_at(rest, 1));
    }
    rest = rest.subspan(5 + length_at(rest, 3));
  }
  return out;
}

void Service_filter::read_pmt(std::span<const uint8_t> section) {
  if (section[0] != table::PMT || number_at(section, 3) != service_id_ || !is_current(section)) {
    return;
  }
  if (!std::equal(section.begin(), section.end(), pmt_.begin(), pmt_.end())) {
    const std::optional<Program> program = program_of(section);
    if (!program) {
      return;
    }
    tell_changes(*program);
    pmt_.assign(section.begin(), section.end());
    program_ = program;
    follow();
  }
  if (!begun_) {
    begun_ = true;
    write_pat();
  }
  pmt_writer_.write(section, out_);
}

void Service_filter::tell_changes(const Program& program) {
  if (!program_) {
    return;
  }
  const auto missing = [](const std::set<int>& from, const std::set<int>& in) {
    return static_cast<size_t>(std::count_if(from.begin(), from.end(), [&](int pid) { return !in.contains(pid); }));
  };
  std::string text;
  if (const size_t added = missing(program.streams, program_->streams); added > 0) {
    text += ", " + counted(added, "new stream");
  }
  if (const size_t gone = missing(program_->streams, program.streams); gone > 0) {
    text += ", " + counted(gone, "stream") + " less";
  }
  if (program.pcr_pid != program_->pcr_pid) {
    text += ", the clock on another PID";
  }
  if (!text.empty()) {
    tell("the channel has changed: " + text.substr(2));
  }
}

// ISO/IEC 13818-1, 2.4.4.6
void Service_filter::read_cat(std::span<const uint8_t> section) {
  if (section[0] != table::CAT || !is_current(section)) {
    return;
  }
  std::set<int> pids;
  if (read_keys(section.subspan(LONG_HEADER, section.size() - LONG_HEADER - CRC), &pids) && pids != managements_) {
    managements_ = pids;
    follow();
  }
}

// EN 300 468, 5.2.3
void Service_filter::read_sdt(std::span<const uint8_t> section) {
  constexpr size_t FIXED = 11;
  constexpr uint8_t SCHEDULE = 0x02;
  if (section[0] != table::SDT_ACTUAL || section.size() < FIXED + CRC || !is_current(section) || !begun_) {
    return;
  }
  std::span<const uint8_t> rest = section.subspan(FIXED, section.size() - FIXED - CRC);
  while (rest.size() >= 5 && 5 + length_at(rest, 3) <= rest.size()) {
    const std::span<const uint8_t> entry = rest.first(5 + length_at(rest, 3));
    rest = rest.subspan(entry.size());
    if (number_at(entry, 0) != service_id_) {
      continue;
    }
    Bytes sdt(section.begin(), section.begin() + FIXED);
    sdt[6] = sdt[7] = 0;  // the only section
    sdt.insert(sdt.end(), entry.begin(), entry.end());
    sdt[FIXED + 2] &= static_cast<uint8_t>(~SCHEDULE);  // which is left out
    Bytes unnumbered = sdt;
    unnumbered[1] = unnumbered[2] = unnumbered[5] = 0;
    if (sdt_entry_ != unnumbered) {
      sdt_number_ = sdt_entry_.empty() ? version_of(section) : (sdt_number_ + 1) % VERSIONS;
      sdt_entry_ = unnumbered;
    }
    sdt[5] = static_cast<uint8_t>(0xC1 | sdt_number_ << 1);
    sdt_writer_.write(finished_section(sdt), out_);
    return;
  }
}

// EN 300 468, 5.2.4
void Service_filter::read_eit(std::span<const uint8_t> section) {
  if (section[0] == table::EIT_PRESENT_FOLLOWING && number_at(section, 3) == service_id_ && begun_) {
    eit_writer_.write(section, out_);
  }
}

void Service_filter::follow() {
  std::set<int> passed{pid::TIME};
  if (program_) {
    passed.insert(program_->streams.begin(), program_->streams.end());
    passed.insert(program_->keys.begin(), program_->keys.end());
    if (is_of_programmes(program_->pcr_pid)) {
      passed.insert(program_->pcr_pid);
    }
    if (!program_->keys.empty()) {
      passed.insert(pid::CAT);
      passed.insert(managements_.begin(), managements_.end());
    }
  }
  passed_.reset();
  for (const int pid : passed) {
    passed_.set(static_cast<size_t>(pid));
  }
  std::set<int> wanted{pid::PAT, pid::SDT, pid::EIT};
  wanted.merge(passed);
  if (pmt_pid_ >= 0) {
    wanted.insert(pmt_pid_);
  }
  if (wanted_ != wanted) {
    wanted_ = wanted;
    ++changed_;
  }
}
