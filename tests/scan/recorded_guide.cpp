// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "scan/recorded_guide.h"

#include <iconv.h>

#include "support/test.h"

// These headers need their order.
// clang-format off
extern "C" {
#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/demux.h>
#include <dvbpsi/eit.h>
#include <dvbpsi/dr_4d.h>
#include <dvbpsi/dr_4e.h>
#include <dvbpsi/dr_54.h>
#include <dvbpsi/dr_55.h>
}
// clang-format on

#include "base/ids.h"
#include "support/support.h"
#include "support/text.h"
#include "support/ts_writer.h"

namespace scan_support {

namespace {

using support::Bytes;

constexpr size_t PACKET = 188;
constexpr int MJD_OF_1970 = 40587;

struct Texts {
  std::string title, text, extended, items;
};

int two_digits(uint64_t bcd) {
  return static_cast<int>((bcd >> 4 & 15) * 10 + (bcd & 15));
}

int seconds_of(uint64_t bcd) {
  return two_digits(bcd >> 16) * 3600 + two_digits(bcd >> 8) * 60 + two_digits(bcd);
}

// The character table that a text names (EN 300 468, Annex A.2); an empty name for UTF-8, which stays as it is.
std::string utf8(const uint8_t* bytes, size_t size) {
  const std::string raw(reinterpret_cast<const char*>(bytes), size);
  if (size == 0 || bytes[0] == 0x15)
    return raw;
  std::string charset = "ISO6937";
  size_t start = 0;
  if (bytes[0] <= 0x0B) {
    charset = "ISO-8859-" + std::to_string(bytes[0] + 4);
    start = 1;
  } else if (bytes[0] == 0x10 && size >= 3) {
    charset = "ISO-8859-" + std::to_string(bytes[1] << 8 | bytes[2]);
    start = 3;
  } else if (bytes[0] < 0x20) {
    ADD_FAILURE() << "a table of characters that no recording had: " << static_cast<int>(bytes[0]);
    return raw;
  }
  const iconv_t converter = iconv_open("UTF-8", charset.c_str());
  if (converter == reinterpret_cast<iconv_t>(-1)) {
    ADD_FAILURE() << "no converter for " << charset;
    return raw;
  }
  std::string in = raw.substr(start);
  std::string out(4 * size + 4, '\0');
  char* from = in.data();
  char* to = out.data();
  size_t from_left = in.size();
  size_t to_left = out.size();
  const size_t result = iconv(converter, &from, &from_left, &to, &to_left);
  iconv_close(converter);
  if (result != 0)
    return raw;  // what cannot be converted is stored as it was sent
  out.resize(out.size() - to_left);
  return out;
}

// As a value of the database's listing: texts of less than three bytes are not stored.
std::string shown(const std::string& text) {
  return text.size() < 3 ? "" : support::visible(text);
}

struct Guide {
  std::set<int> services;
  std::set<std::string> lines;
};

void add_event(Guide* guide, int service, const dvbpsi_eit_event_t& event) {
  const int mjd = static_cast<int>(event.i_start_time >> 24);
  const int64_t start = int64_t{mjd - MJD_OF_1970} * 86400 + seconds_of(event.i_start_time & 0xFFFFFF);
  std::string content = "0.0.0.0";
  std::string rating = "0@est";
  std::map<std::string, Texts> languages;
  const auto language = [](const uint8_t* code) { return std::string(reinterpret_cast<const char*>(code), 3); };
  for (auto* d = event.p_first_descriptor; d != nullptr; d = d->p_next) {
    if (d->i_tag == tag::SHORT_EVENT) {
      if (const auto* s = dvbpsi_DecodeShortEventDr(d)) {
        Texts& texts = languages[language(s->i_iso_639_code)];
        texts.title = utf8(s->i_event_name, static_cast<size_t>(s->i_event_name_length));
        texts.text = utf8(s->i_text, static_cast<size_t>(s->i_text_length));
      }
    } else if (d->i_tag == tag::EXTENDED_EVENT) {
      if (const auto* e = dvbpsi_DecodeExtendedEventDr(d)) {
        Texts& texts = languages[language(e->i_iso_639_code)];
        texts.extended += utf8(e->i_text, static_cast<size_t>(e->i_text_length));
        for (int i = 0; i < e->i_entry_count; ++i) {
          const std::string name = utf8(e->i_item_description[i], e->i_item_description_length[i]);
          texts.items += name + name + ":" + utf8(e->i_item[i], e->i_item_length[i]) + ",";
        }
      }
    } else if (d->i_tag == tag::CONTENT) {
      if (const auto* c = dvbpsi_DecodeContentDr(d); c != nullptr && c->i_contents_number != 0) {
        content.clear();
        for (int i = 0; i < c->i_contents_number; ++i) {
          char text[16];
          const unsigned type = c->p_content[i].i_type;
          const unsigned user = c->p_content[i].i_user_byte;
          std::snprintf(text, sizeof text, "%x.%x.%x.%x ", type >> 4, type & 15, user >> 4, user & 15);
          content += text;
        }
      }
    } else if (d->i_tag == tag::PARENTAL_RATING) {
      if (const auto* r = dvbpsi_DecodeParentalRatingDr(d); r != nullptr && r->i_ratings_number != 0) {
        rating.clear();
        for (int i = 0; i < r->i_ratings_number; ++i) {
          char text[16];
          const uint32_t country = r->p_parental_rating[i].i_country_code;
          std::snprintf(text, sizeof text, "%02x@%c%c%c ", static_cast<unsigned>(r->p_parental_rating[i].i_rating),
                        static_cast<char>(country >> 16), static_cast<char>(country >> 8), static_cast<char>(country));
          rating += text;
        }
      }
    }
  }
  const std::string head = std::to_string(service) + "|" + std::to_string(event.i_event_id) + "|" +
                           std::to_string(start) + "|" + std::to_string(seconds_of(event.i_duration)) + "|" + content +
                           "|" + rating + "|";
  if (languages.empty())
    guide->lines.insert(head + "||||");
  for (const auto& [code, texts] : languages)
    guide->lines.insert(head + code + "|" + shown(texts.title) + "|" + shown(texts.text) + "|" + shown(texts.extended) +
                        "|" + shown(texts.items));
}

void on_eit(void* data, dvbpsi_eit_t* eit) {
  auto* guide = static_cast<Guide*>(data);
  if (guide->services.empty() || guide->services.count(eit->i_extension) != 0) {
    for (auto* event = eit->p_first_event; event != nullptr; event = event->p_next)
      add_event(guide, eit->i_extension, *event);
  }
  dvbpsi_eit_delete(eit);
}

void on_subtable(dvbpsi_t* handle, uint8_t table_id, uint16_t extension, void* guide) {
  dvbpsi_eit_attach(handle, table_id, extension, on_eit, guide);
}

// libdvbpsi gives out whole tables, when their first section has come again. Recordings lack sections, so each becomes
// a table of its own.
void decode(Bytes section, Guide* guide) {
  section.resize(section.size() - 4);
  section[6] = section[7] = section[12] = 0;
  support::Ts_writer writer;
  const Bytes table = support::with_crc(std::move(section));
  writer.section(pid::EIT, table).section(pid::EIT, table);
  dvbpsi_t* const handle = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
  dvbpsi_AttachDemux(handle, on_subtable, guide);
  for (size_t at = 0; at < writer.bytes.size(); at += PACKET)
    dvbpsi_packet_push(handle, writer.bytes.data() + at);
  dvbpsi_DetachDemux(handle);
  dvbpsi_delete(handle);
}

std::set<Bytes>* gathered = nullptr;

void on_section(dvbpsi_t*, dvbpsi_psi_section_t* section) {
  const bool actual =
      section->i_table_id == table::EIT_PRESENT_FOLLOWING ||
      (section->i_table_id >= table::EIT_SCHEDULE_FIRST && section->i_table_id <= table::EIT_SCHEDULE_LAST);
  if (actual && section->b_current_next)
    gathered->insert(Bytes(section->p_data, section->p_payload_end + 4));
  dvbpsi_DeletePSISections(section);
}

// Every different section with a right CRC.
std::set<Bytes> sections_of(const std::string& file) {
  std::set<Bytes> sections;
  gathered = &sections;
  dvbpsi_t* const handle = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
  handle->p_decoder =
      static_cast<dvbpsi_decoder_t*>(dvbpsi_decoder_new(on_section, 4096, true, sizeof(dvbpsi_decoder_t)));
  std::string stream = support::read_file(file);
  for (size_t at = 0; at + PACKET <= stream.size(); at += PACKET) {
    auto* packet = reinterpret_cast<uint8_t*>(stream.data()) + at;
    if ((static_cast<unsigned>(packet[1] & 31) << 8 | packet[2]) == pid::EIT && (packet[1] & 0x80) == 0)
      dvbpsi_packet_push(handle, packet);
  }
  dvbpsi_decoder_delete(handle->p_decoder);
  handle->p_decoder = nullptr;
  dvbpsi_delete(handle);
  return sections;
}

}  // namespace

const char STORED_GUIDE[] =
    "SELECT e.pat_prnr, e.ev_id, e.start_epoch, e.dur_sec, e.content_id, e.rating, ifnull(l.lang, ''), "
    "ifnull(l.ev_name, ''), ifnull(l.ev_desc, ''), ifnull(l.ext_desc, ''), ifnull(l.ext_list, '') "
    "FROM epglist e LEFT JOIN epglist_lang l ON l.source_oid = e.entry";

const char STORED_WHOLE_GUIDE[] =
    "SELECT e.pat_prnr, e.ev_id, e.start_epoch, e.dur_sec, e.content_id, e.rating, ifnull(l.lang, ''), "
    "CASE WHEN length(CAST(ev_name AS BLOB)) > 2 THEN ev_name ELSE '' END, "
    "CASE WHEN length(CAST(ev_desc AS BLOB)) > 2 THEN ev_desc ELSE '' END, "
    "CASE WHEN length(CAST(ext_desc AS BLOB)) > 2 THEN ext_desc ELSE '' END, "
    "CASE WHEN length(CAST(ext_list AS BLOB)) > 2 THEN ext_list ELSE '' END "
    "FROM epglist e LEFT JOIN epglist_lang l ON l.source_oid = e.entry";

std::vector<std::string> recorded_guide(const std::string& file, const std::set<int>& services) {
  Guide guide{services, {}};
  for (const Bytes& section : sections_of(file))
    decode(section, &guide);
  return {guide.lines.begin(), guide.lines.end()};
}

void expect_same_guide(const std::vector<std::string>& recorded, const std::string& stored) {
  support::Texts lines = support::lines_of(stored);
  std::sort(lines.begin(), lines.end());
  std::vector<std::string> missing;
  std::vector<std::string> unknown;
  std::set_difference(recorded.begin(), recorded.end(), lines.begin(), lines.end(), std::back_inserter(missing));
  std::set_difference(lines.begin(), lines.end(), recorded.begin(), recorded.end(), std::back_inserter(unknown));
  EXPECT_THAT(missing, testing::IsEmpty()) << "recorded and not stored";
  EXPECT_THAT(unknown, testing::IsEmpty()) << "stored and not recorded, or twice";
}

}  // namespace scan_support
