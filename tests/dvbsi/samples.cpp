// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "dvbsi/samples.h"

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <utility>

namespace dvbsi_test {

using support::bytes;
using support::descriptor;
using support::join;
using support::long_section;
using support::loop12;
using support::u16;

namespace {

Bytes counted(const std::string& text) {
  return join({{static_cast<uint8_t>(text.size())}, bytes(text)});
}

Bytes language(const char* code, const Bytes& rest) {
  return join({bytes(code), rest});
}

Bytes service_loop(const std::string& name) {
  return join({descriptor(0x48, join({{0x01}, counted("Provider"), counted(name)})),
               descriptor(0x5D, join({language("eng", counted("Prov")), counted(name), language("est", counted("P")),
                                      counted("\x05Nimi")}))});
}

Bytes event(unsigned id, const std::string& name) {
  const std::string text = "What " + name + " is about, in a sentence or two as broadcasters write them.";
  return join({u16(id),
               {0xE9, 0x7A, 0x20, 0x15, 0x00, 0x00, 0x45, 0x00},
               loop12(join({descriptor(0x4D, language("eng", join({counted(name), counted(text)}))),
                            descriptor(0x54, {0x11, 0x00}), descriptor(0x55, language("FIN", {9})),
                            descriptor(0x50, join({{0xF1, 0x0B, 1}, bytes("eng"), bytes("HD")}))}))});
}

// Puts section_length and the CRC right.
Bytes mended(Bytes s) {
  s.resize(std::clamp<size_t>(s.size(), 8, 4096));
  const size_t length = s.size() - 3;
  s[1] = static_cast<uint8_t>((s[1] & 0xF0) | (length >> 8));
  s[2] = static_cast<uint8_t>(length);
  if (s[0] == 0x70)
    return s;
  s.resize(s.size() - 4);
  return support::with_crc(std::move(s));
}

Bytes short_section(uint8_t table_id, const Bytes& body) {
  return mended(join({{table_id, 0x70, 0}, body, table_id == 0x70 ? Bytes{} : Bytes(4, 0)}));
}

}  // namespace

Bytes sample_pat(size_t entries) {
  Bytes body{0, 0, 0xE0, 0x10};
  for (unsigned i = 1; i <= entries; ++i)
    body = join({body, u16(i), u16(0xE100 + i)});
  return long_section(0x00, 1, 1, body);
}

Bytes sample_pmt(size_t entries) {
  const Bytes kinds[] = {
      join({descriptor(0x02, {0x1A, 0x44, 0x5F}), descriptor(0x0E, {0xC0, 0x12, 0x34}), descriptor(0x52, {1})}),
      join({descriptor(0x03, {0x68}), descriptor(0x0A, language("est", {0})), descriptor(0x52, {2})}),
      join({descriptor(0x6A, {0xF0, 0x42, 6, 0, 0}), descriptor(0x0A, language("fin", {0}))}),
      join({descriptor(0x56, language("fin", {0x09, 0x00})), descriptor(0x52, {4})}),
      join({descriptor(0x59, language("dan", {0x14, 0, 1, 0, 2})), descriptor(0x06, {2})}),
  };
  const uint8_t types[] = {0x02, 0x03, 0x06, 0x06, 0x06};
  Bytes streams;
  for (unsigned i = 0; i < entries; ++i)
    streams = join({streams, {types[i % 5]}, u16(0xE200 + i), loop12(kinds[i % 5])});
  return long_section(0x02, 0x65, 3, join({u16(0xE200), loop12(descriptor(0x09, {0x0B, 0, 0xE1, 0, 1, 2})), streams}));
}

Bytes sample_sdt(size_t entries) {
  Bytes body{0x20, 0x85, 0xFF};
  for (unsigned i = 0; i < entries; ++i) {
    const std::string name = "Channel " + std::to_string(i);
    const Bytes loop = service_loop(name);
    body = join({body, u16(0x65 + i), {0xFF}, u16(0x8000 | static_cast<unsigned>(loop.size())), loop});
  }
  return long_section(0x42, 1, 7, body);
}

Bytes sample_eit(size_t entries) {
  Bytes body{0, 1, 0x20, 0x85, 0, 0x50};
  for (unsigned i = 0; i < entries; ++i)
    body = join({body, event(i, "Programme " + std::to_string(i))});
  return long_section(0x50, 0x65, 2, body);
}

std::vector<Bytes> sample_sections() {
  const Bytes network = join({descriptor(0x40, bytes("Network")),
                              descriptor(0x5B, join({language("eng", counted("Net")), language("est", counted(""))}))});
  const Bytes delivery = join({descriptor(0x5A, {2, 0xD2, 0x66, 0x60, 0x1F, 0x80, 0x64, 0xFF, 0xFF, 0xFF, 0xFF}),
                               descriptor(0x83, {0, 0x65, 0xFC, 1, 0, 0x66, 0x7C, 2}), descriptor(0x41, {0, 1, 2})});
  const Bytes items = join({counted("Director"), counted("A. B."), counted("Year"), counted("1999")});
  const Bytes long_event =
      descriptor(0x4E, join({{0x01}, bytes("eng"), {static_cast<uint8_t>(items.size())}, items, counted("and more")}));
  return {
      sample_pat(3),
      long_section(0x01, 0xFFFF, 0, descriptor(0x09, {0x0B, 0, 0xE1, 0, 1, 2})),
      sample_pmt(5),
      long_section(0x40, 0x3001, 4, join({loop12(network), loop12(join({{0, 1, 0x20, 0x85}, loop12(delivery)}))})),
      sample_sdt(3),
      long_section(0x4E, 0x65, 1,
                   join({{0, 1, 0x20, 0x85, 0, 0x4E}, Bytes(10, 0x12), loop12(long_event), event(7, "Film")})),
      sample_eit(3),
      short_section(0x70, {0xE9, 0x7A, 0x12, 0x45, 0x00}),
      short_section(0x73, join({{0xE9, 0x7A, 0x12, 0x45, 0x00},
                                loop12(descriptor(0x58, language("EST", {0, 2, 0, 0xE9, 0x80, 1, 0, 0, 3, 0})))})),
      long_section(0x72, 1, 0, {1, 2, 3}),
  };
}

Bytes with_entry_loop(uint8_t table_id, const Bytes& loop, const Bytes& behind) {
  switch (table_id) {
    case 0x02:
      return long_section(0x02, 1, 0, join({u16(0xE100), loop12({}), {2, 0xE1, 0x01}, loop12(loop), behind}));
    case 0x40:
      return long_section(0x40, 1, 0, join({loop12({}), loop12(join({{0, 1, 0, 2}, loop12(loop), behind}))}));
    case 0x42:
      return long_section(0x42, 1, 0, join({{0, 1, 0xFF, 0, 5, 0xFC}, loop12(loop), behind}));
    default:
      return long_section(0x4E, 1, 0, join({{0, 1, 0, 2, 0, 0x4E}, Bytes(10, 0), loop12(loop), behind}));
  }
}

Bytes damaged(Bytes section, Random& random) {
  for (unsigned changes = 1 + random() % 4; changes != 0 && section.size() > 8; --changes) {
    const size_t at = 3 + random() % (section.size() - 3);
    const auto place = section.begin() + static_cast<std::ptrdiff_t>(at);
    switch (random() % 5) {
      case 0:
        section[at] = static_cast<uint8_t>(section[at] ^ (1u << random() % 8));
        break;
      case 1:
        section[at] = static_cast<uint8_t>(random());
        break;
      case 2:
        section[at] = random() % 2 ? 0xFF : 0x00;
        break;
      case 3:
        section.insert(place, 1 + random() % 3, static_cast<uint8_t>(random()));
        break;
      default:
        section.erase(place, place + std::min<std::ptrdiff_t>(1 + static_cast<std::ptrdiff_t>(random() % 5),
                                                              section.end() - place));
    }
  }
  return mended(std::move(section));
}

Bytes random_section(Random& random) {
  const auto byte = [&] { return static_cast<uint8_t>(random()); };
  Bytes loop;
  for (unsigned i = 1 + random() % 3; i != 0; --i) {
    Bytes body(random() % 2 ? random() % 12 : random() % 60);
    std::generate(body.begin(), body.end(),
                  [&] { return random() % 3 ? static_cast<uint8_t>(random() % 16) : byte(); });
    Bytes d = descriptor(byte(), body);
    if (random() % 8 == 0)
      d[1] = byte();
    loop = join({loop, d});
  }
  switch (random() % 6) {
    case 0:
      return long_section(0x01, 0xFFFF, 0, loop);
    case 1:
      return with_entry_loop(0x02, loop);
    case 2:
      return long_section(0x40, 1, 0, join({loop12(loop), loop12(join({{0, 1, 0, 2}, loop12(loop)}))}));
    case 3:
      return with_entry_loop(0x42, loop);
    case 4:
      return with_entry_loop(0x4E, loop);
    default:
      return short_section(0x73, join({Bytes(5, 0), loop12(loop)}));
  }
}

std::vector<Bytes> section_file(const std::string& path) {
  const std::string file = support::read_file(path);
  const auto at = [&file](size_t i) { return static_cast<size_t>(static_cast<uint8_t>(file[i])); };
  std::vector<Bytes> sections;
  for (size_t i = 0; i + 2 <= file.size();) {
    const size_t size = at(i) << 8 | at(i + 1);
    sections.push_back(bytes(file.substr(i + 2, size)));
    i += 2 + size;
  }
  return sections;
}

std::vector<Collected> shared_collection() {
  const std::string folder = shared_file("malformed");
  std::vector<Collected> all;
  if (folder.empty())
    return all;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    Collected file{entry.path().filename().string(), support::read_file(entry.path().string()), {}};
    std::istringstream lines(file.text);
    Bytes section;
    for (std::string line; std::getline(lines, line);) {
      if (line.empty() || line[0] == '#')
        continue;
      for (size_t i = line.rfind(' ') + 1; i + 2 <= line.size(); i += 2)
        section.push_back(static_cast<uint8_t>(std::stoul(line.substr(i, 2), nullptr, 16)));
      if (file.name == "random_found.txt")
        file.sections.push_back(std::exchange(section, {}));
    }
    if (file.name.starts_with("short_crc"))
      section.resize(4096);
    if (!section.empty())
      file.sections.push_back(section);
    all.push_back(file);
  }
  return all;
}

std::string shared_file(const std::string& name) {
  const std::filesystem::path path = std::filesystem::path(KELVO_DVBSI_SHARED) / name;
  return std::filesystem::exists(path) ? path.string() : std::string();
}

}  // namespace dvbsi_test
