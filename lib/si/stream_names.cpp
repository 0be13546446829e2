// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Streams by name. Read from the section's bytes, because hardly any implementation of the classes knows these
// descriptors.
#include "si/stream_names.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/ids.h"

namespace {

using Body = std::span<const uint8_t>;

constexpr char VIDEO[] = "video";
constexpr char AUDIO[] = "audio";
constexpr char SUBTITLES[] = "subtitles";
constexpr char TELETEXT[] = "teletext";
constexpr char APPLICATION[] = "application";
constexpr char DATA[] = "data";

constexpr char AUDIO_DESCRIPTION[] = "audio description";
constexpr char HARD_OF_HEARING[] = "hard of hearing";

constexpr size_t PROGRAMME_LOOP = 10;  // from the section's beginning: its 12-bit length
constexpr size_t CRC_SIZE = 4;

// Stream types that leave it to descriptors what the stream is.
constexpr int PRIVATE_SECTIONS = 0x05;
constexpr int PRIVATE_PES = 0x06;
constexpr int FIRST_USER_PRIVATE = 0x80;

struct Kind {
  int value;
  const char* kind;
  const char* codec;
};

// ISO/IEC 13818-1, table 2-34; those of user private range as ATSC A/53 has them, which broadcasters of DVB send, too.
constexpr Kind STREAM_TYPES[] = {
    {0x01, VIDEO, "MPEG-1"},    {0x02, VIDEO, "MPEG-2"},    {0x03, AUDIO, "MPEG-1"},  {0x04, AUDIO, "MPEG-2"},
    {0x07, DATA, "MHEG"},       {0x08, DATA, "DSM-CC"},     {0x0A, DATA, "DSM-CC"},   {0x0B, DATA, "DSM-CC"},
    {0x0C, DATA, "DSM-CC"},     {0x0D, DATA, "DSM-CC"},     {0x0F, AUDIO, "AAC"},     {0x10, VIDEO, "MPEG-4"},
    {0x11, AUDIO, "HE-AAC"},    {0x1B, VIDEO, "H.264"},     {0x1C, AUDIO, "AAC"},     {0x1F, VIDEO, "H.264 SVC"},
    {0x20, VIDEO, "H.264 MVC"}, {0x21, VIDEO, "JPEG 2000"}, {0x24, VIDEO, "HEVC"},    {0x25, VIDEO, "HEVC"},
    {0x2D, AUDIO, "MPEG-H"},    {0x2E, AUDIO, "MPEG-H"},    {0x32, VIDEO, "JPEG XS"}, {0x33, VIDEO, "VVC"},
    {0x34, VIDEO, "VVC"},       {0x81, AUDIO, "AC-3"},      {0x87, AUDIO, "E-AC-3"},
};

// registration_descriptor (ISO/IEC 13818-1, 2.6.8) of private streams.
constexpr struct {
  std::string_view identifier;
  const char* kind;
  const char* codec;
} REGISTERED[] = {
    {"AC-3", AUDIO, "AC-3"}, {"EAC3", AUDIO, "E-AC-3"}, {"AC-4", AUDIO, "AC-4"}, {"DTS1", AUDIO, "DTS"},
    {"DTS2", AUDIO, "DTS"},  {"DTS3", AUDIO, "DTS"},    {"Opus", AUDIO, "Opus"}, {"HEVC", VIDEO, "HEVC"},
};

// A number with what it stands for.
struct Word {
  unsigned value;
  const char* text;
};

template <size_t N>
const char* word_of(const Word (&words)[N], unsigned value, const char* other = "") {
  const auto* word = std::find_if(std::begin(words), std::end(words), [=](const Word& w) { return w.value == value; });
  return word != std::end(words) ? word->text : other;
}

// audio_type (ISO/IEC 13818-1, table 2-60)
constexpr Word AUDIO_TYPES[] = {{1, "clean effects"}, {2, HARD_OF_HEARING}, {3, AUDIO_DESCRIPTION}};
// editorial_classification (EN 300 468, 6.4.11)
constexpr Word EDITORIAL_CLASSES[] = {
    {1, AUDIO_DESCRIPTION}, {2, HARD_OF_HEARING}, {3, "spoken subtitles"}, {4, "dependent data"}};
// Service types of (E-)AC-3 (EN 300 468, table D.4): the middle bits of a component type, or bsmod.
constexpr Word AC3_SERVICES[] = {{1, "music and effects"}, {2, AUDIO_DESCRIPTION}, {3, HARD_OF_HEARING},
                                 {4, "dialogue"},          {5, "commentary"},      {6, "emergency"}};
// AAC_type, a component_type of stream_content 0x06 (EN 300 468, table 26)
constexpr Word AAC_TYPES[] = {
    {0x40, AUDIO_DESCRIPTION}, {0x41, HARD_OF_HEARING},   {0x42, "supplementary"},   {0x44, AUDIO_DESCRIPTION},
    {0x45, HARD_OF_HEARING},   {0x46, "supplementary"},   {0x47, AUDIO_DESCRIPTION}, {0x48, AUDIO_DESCRIPTION},
    {0x49, AUDIO_DESCRIPTION}, {0x4A, AUDIO_DESCRIPTION},
};
// teletext_type (EN 300 468, table 94)
constexpr Word TELETEXT_TYPES[] = {
    {1, "index"}, {2, "subtitles"}, {3, "additional information"}, {4, "programme schedule"}, {5, HARD_OF_HEARING}};
// subtitle_purpose (EN 303 560, 5.2.1.2)
constexpr Word SUBTITLE_PURPOSES[] = {
    {0x10, HARD_OF_HEARING},   {0x11, HARD_OF_HEARING}, {0x12, HARD_OF_HEARING},
    {0x30, AUDIO_DESCRIPTION}, {0x31, "commentary"},
};
// application_type (ETSI TS 102 809, 5.2.2)
constexpr Word APPLICATION_TYPES[] = {{0x0001, "MHP"}, {0x0002, "MHP"}, {0x0010, "HbbTV"}};
// data_broadcast_id (EN 300 468, 6.2.12; TS 101 162)
constexpr Word DATA_BROADCASTS[] = {{0x0005, "MPE"},
                                    {0x0006, "data carousel"},
                                    {0x0007, "object carousel"},
                                    {0x000A, "software update"},
                                    {0x000B, "IP/MAC notification"},
                                    {0x00F0, "object carousel"},
                                    {0x0106, "MHEG-5"},
                                    {0x0123, "HbbTV carousel"}};
// Profiles.
constexpr Word MPEG2_PROFILES[] = {{5, "Simple"}, {4, "Main"}, {3, "SNR"}, {2, "Spatial"}, {1, "High"}};
constexpr Word MPEG2_LEVELS[] = {{10, "Low"}, {8, "Main"}, {6, "High 1440"}, {4, "High"}};
constexpr Word AVC_PROFILES[] = {{66, "Baseline"}, {77, "Main"},     {88, "Extended"},
                                 {100, "High"},    {110, "High 10"}, {122, "High 4:2:2"}};
constexpr Word HEVC_PROFILES[] = {{1, "Main"}, {2, "Main 10"}, {3, "Main Still Picture"}};
constexpr Word VVC_PROFILES[] = {{1, "Main 10"}, {17, "Main 10 Still Picture"}, {33, "Main 10 4:4:4"}};

// Where a length in the stream spans more than there is, this is what there is.
Body first(Body bytes, size_t size) {
  return bytes.first(std::min(size, bytes.size()));
}
Body behind(Body bytes, size_t size) {
  return bytes.subspan(std::min(size, bytes.size()));
}
int u16(Body bytes, size_t at) {
  return bytes[at] << 8 | bytes[at + 1];
}
size_t length12(Body bytes, size_t at) {
  return static_cast<size_t>(u16(bytes, at) & 0x0FFF);
}
int pid_at(Body bytes, size_t at) {
  return u16(bytes, at) & pid::LAST;
}

template <typename Each>
void for_each_descriptor(Body loop, Each each) {
  while (loop.size() >= 2 && loop.size() - 2 >= loop[1]) {
    each(int{loop[0]}, loop.subspan(2, loop[1]));
    loop = loop.subspan(size_t{2} + loop[1]);
  }
}

// Entries of one size; what is too short for one is left out.
template <typename Each>
void for_each_entry(Body body, size_t size, Each each) {
  for (; body.size() >= size; body = body.subspan(size))
    each(body.first(size));
}

std::string language_at(Body bytes, size_t at) {
  std::string code(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                   bytes.begin() + static_cast<std::ptrdiff_t>(at) + 3);
  std::replace_if(
      code.begin(), code.end(), [](char c) { return c <= ' ' || c > '~'; }, '?');
  return code;
}

std::string at_level(const char* profile, int major, int minor) {
  char text[64];
  (void)std::snprintf(text, sizeof text, "%s@L%d.%d", profile, major, minor);
  return *profile != '\0' ? text : "";
}

// AAC by its profile_and_level (ISO/IEC 14496-3, table 1.14); null for what is not told apart here.
const char* aac_of(int profile_and_level) {
  if (profile_and_level >= 0x28 && profile_and_level <= 0x2B)
    return "AAC";
  if (profile_and_level >= 0x2C && profile_and_level <= 0x2F)
    return "HE-AAC";
  return profile_and_level >= 0x30 && profile_and_level <= 0x33 ? "HE-AAC v2" : nullptr;
}

// One stream while its descriptors are read. What several of them say is decided at the end.
class Stream_reader {
 public:
  Stream_reader(int type, int pid) : type_(type) {
    detail_.es_pid = pid;
    detail_.es_type = type;
  }

  void descriptor(int tag, Body body);
  Stream_detail finish();

 private:
  // What a stream is: the better of two descriptors is the one that tells more.
  enum class Rank { NONE, REGISTRATION, TEXT, PLAIN, ENHANCED };

  bool types_leave_it_open() const {
    return type_ == PRIVATE_PES || type_ == PRIVATE_SECTIONS || type_ >= FIRST_USER_PRIVATE;
  }
  void is(Rank rank, const char* kind, const char* codec);
  void ac3(Body body, const char* codec, Rank rank);
  void aac(Body body);
  void language(Body body);
  void teletext(Body body);
  void subtitling(Body body);
  void extension(Body body);
  void supplementary_audio(Body body);
  void application(Body body);
  void registration(Body body);
  void mpeg2_video(Body body);
  void avc_video(Body body);
  void hevc_video(Body body);
  void vvc_video(Body body);

  int type_;
  Stream_detail detail_;
  Rank rank_ = Rank::NONE;
  std::vector<Stream_language> spoken_;
  std::string role_;          // of the whole stream, by its sound's descriptors
  std::string own_language_;  // of supplementary audio
  const char* aac_ = nullptr;
  const char* broadcast_ = "";
};

void Stream_reader::is(Rank rank, const char* kind, const char* codec) {
  if (rank <= rank_)
    return;
  rank_ = rank;
  detail_.kind = kind;
  detail_.codec = codec;
}

// AC-3_descriptor and enhanced_AC-3_descriptor (EN 300 468, D.3 and D.5): flags, then what they announce.
void Stream_reader::ac3(Body body, const char* codec, Rank rank) {
  is(rank, AUDIO, codec);
  if (body.size() >= 2 && (body[0] & 0x80) != 0 && role_.empty())
    role_ = word_of(AC3_SERVICES, body[1] >> 3 & 7);
}

// AAC_descriptor (EN 300 468, H.2.1)
void Stream_reader::aac(Body body) {
  if (body.empty())
    return;
  is(Rank::PLAIN, AUDIO, "AAC");
  aac_ = aac_of(body[0]);
  if (body.size() >= 3 && (body[1] & 0x80) != 0 && role_.empty())
    role_ = word_of(AAC_TYPES, body[2]);
}

void Stream_reader::language(Body body) {
  for_each_entry(body, 4, [this](Body entry) {
    spoken_.push_back({language_at(entry, 0), word_of(AUDIO_TYPES, entry[3]), 0});
  });
}

void Stream_reader::teletext(Body body) {
  is(Rank::TEXT, TELETEXT, "");
  for_each_entry(body, 5, [this](Body entry) {
    const int magazine = (entry[3] & 7) != 0 ? entry[3] & 7 : 8;
    const int tens = entry[4] >> 4;
    const int units = entry[4] & 0x0F;
    // Pages with other digits cannot be typed.
    const int page = tens <= 9 && units <= 9 ? magazine * 100 + tens * 10 + units : 0;
    detail_.languages.push_back(
        {language_at(entry, 0), word_of(TELETEXT_TYPES, static_cast<unsigned>(entry[3] >> 3)), page});
  });
}

void Stream_reader::subtitling(Body body) {
  is(Rank::TEXT, SUBTITLES, "DVB");
  for_each_entry(body, 8, [this](Body entry) {
    const unsigned type = entry[3];
    const char* role = type >= 0x20 && type <= 0x2F   ? HARD_OF_HEARING
                       : type >= 0x30 && type <= 0x31 ? "sign language"
                                                      : "";
    detail_.languages.push_back({language_at(entry, 0), role, u16(entry, 4)});
  });
}

void Stream_reader::extension(Body body) {
  if (body.empty())
    return;
  const Body rest = body.subspan(1);
  switch (body[0]) {
    case extension_tag::SUPPLEMENTARY_AUDIO:
      return supplementary_audio(rest);
    case extension_tag::AC4:
      return is(Rank::ENHANCED, AUDIO, "AC-4");
    case extension_tag::DTS_HD:
      return is(Rank::ENHANCED, AUDIO, "DTS-HD");
    case extension_tag::DTS_UHD:
      return is(Rank::ENHANCED, AUDIO, "DTS-UHD");
    case extension_tag::TTML_SUBTITLING:
      is(Rank::PLAIN, SUBTITLES, "TTML");
      if (rest.size() >= 4)
        detail_.languages.push_back(
            {language_at(rest, 0), word_of(SUBTITLE_PURPOSES, static_cast<unsigned>(rest[3] >> 2)), 0});
      return;
    default:
      return;
  }
}

// What it says goes before what component types say, which have no place for all of it.
void Stream_reader::supplementary_audio(Body body) {
  if (body.empty())
    return;
  if (const char* role = word_of(EDITORIAL_CLASSES, body[0] >> 2 & 0x1F); *role != '\0')
    role_ = role;
  if ((body[0] & 1) != 0 && body.size() >= 4)
    own_language_ = language_at(body, 1);
}

void Stream_reader::application(Body body) {
  const char* name = "";
  for_each_entry(body, 3, [&](Body entry) {
    if (*name == '\0')
      name = word_of(APPLICATION_TYPES, static_cast<unsigned>(u16(entry, 0) & 0x7FFF));
  });
  is(Rank::PLAIN, APPLICATION, name);
}

void Stream_reader::registration(Body body) {
  if (body.size() < 4)
    return;
  const std::string identifier(body.begin(), body.begin() + 4);
  for (const auto& known : REGISTERED)
    if (known.identifier == identifier)
      is(Rank::REGISTRATION, known.kind, known.codec);
}

void Stream_reader::mpeg2_video(Body body) {
  const bool mpeg1_only = body.empty() || (body[0] & 0x04) != 0;
  if (mpeg1_only || body.size() < 2 || (body[1] & 0x80) != 0)
    return;
  const char* profile = word_of(MPEG2_PROFILES, body[1] >> 4 & 7);
  const char* level = word_of(MPEG2_LEVELS, body[1] & 0x0F);
  if (*profile != '\0' && *level != '\0')
    detail_.profile = std::string(profile) + "@" + level;
}

void Stream_reader::avc_video(Body body) {
  if (body.size() >= 3)
    detail_.profile = at_level(word_of(AVC_PROFILES, body[0]), body[2] / 10, body[2] % 10);
}

void Stream_reader::hevc_video(Body body) {
  constexpr size_t LEVEL = 11;
  constexpr unsigned HDR = 2;
  if (body.size() <= LEVEL)
    return;
  detail_.profile = at_level(word_of(HEVC_PROFILES, body[0] & 0x1F), body[LEVEL] / 30, body[LEVEL] % 30 / 3);
  const bool has_hdr = body.size() > LEVEL + 1 && (body[LEVEL + 1] & 3) == HDR;
  if (has_hdr && !detail_.profile.empty())
    detail_.profile += " HDR";
}

// The level stands behind the sub-profiles and a byte of flags.
void Stream_reader::vvc_video(Body body) {
  if (body.size() < 2)
    return;
  const size_t level = 2 + size_t{4} * body[1] + 1;
  const char* profile = word_of(VVC_PROFILES, static_cast<unsigned>(body[0] >> 1));
  if (level < body.size())
    detail_.profile = at_level(profile, body[level] / 16, body[level] % 16 / 3);
}

void Stream_reader::descriptor(int tag, Body body) {
  switch (tag) {
    case tag::VIDEO_STREAM:
      return mpeg2_video(body);
    case tag::AVC_VIDEO:
      return avc_video(body);
    case tag::HEVC_VIDEO:
      return hevc_video(body);
    case tag::VVC_VIDEO:
      return vvc_video(body);
    case tag::MPEG4_AUDIO:
      if (!body.empty() && aac_ == nullptr)
        aac_ = aac_of(body[0]);
      return;
    case tag::REGISTRATION:
      return registration(body);
    case tag::ISO_639_LANGUAGE:
      return language(body);
    case tag::STREAM_IDENTIFIER:
      if (!body.empty())
        detail_.component_tag = body[0];
      return;
    case tag::TELETEXT:
    case tag::VBI_TELETEXT:
      return teletext(body);
    case tag::SUBTITLING:
      return subtitling(body);
    case tag::DATA_BROADCAST_ID:
      if (body.size() >= 2)
        broadcast_ = word_of(DATA_BROADCASTS, static_cast<unsigned>(u16(body, 0)));
      return;
    case tag::AC3:
      return ac3(body, "AC-3", Rank::PLAIN);
    case tag::ENHANCED_AC3:
      return ac3(body, "E-AC-3", Rank::ENHANCED);
    case tag::APPLICATION_SIGNALLING:
      return application(body);
    case tag::DTS:
      return is(Rank::PLAIN, AUDIO, "DTS");
    case tag::AAC:
      return aac(body);
    case tag::EXTENSION:
      return extension(body);
    default:
      return;
  }
}

Stream_detail Stream_reader::finish() {
  const auto* known = std::find_if(std::begin(STREAM_TYPES), std::end(STREAM_TYPES),
                                   [this](const Kind& kind) { return kind.value == type_; });
  // A type that says what the stream is is believed before descriptors.
  if (known != std::end(STREAM_TYPES) && (rank_ == Rank::NONE || !types_leave_it_open())) {
    detail_.kind = known->kind;
    detail_.codec = known->codec;
  } else if (rank_ == Rank::NONE) {
    detail_.kind = DATA;
  }
  if (detail_.kind == AUDIO && aac_ != nullptr && detail_.codec.find("AAC") != std::string::npos)
    detail_.codec = aac_;
  if (detail_.kind == DATA && *broadcast_ != '\0')
    detail_.codec = broadcast_;
  // Subtitles and teletext bring their own languages; what else is named on their stream repeats them.
  const bool is_text = detail_.kind == SUBTITLES || detail_.kind == TELETEXT;
  if (!is_text || detail_.languages.empty())
    detail_.languages = spoken_;
  if (detail_.kind == AUDIO) {
    if (detail_.languages.empty() && (!own_language_.empty() || !role_.empty()))
      detail_.languages.push_back({own_language_, role_, 0});
    else if (!role_.empty())
      for (Stream_language& language : detail_.languages)
        language.role = role_;
  }
  return std::move(detail_);
}

std::optional<Stream_ca> ca_of(int es_pid, Body body) {
  return body.size() >= 4 ? std::optional(Stream_ca{es_pid, u16(body, 0), pid_at(body, 2)}) : std::nullopt;
}

}  // namespace

Programme_streams streams_of_pmt(Body section) {
  Programme_streams out;
  if (section.size() < PROGRAMME_LOOP + 2 + CRC_SIZE)
    return out;
  const auto note_ca = [&out](int es_pid, Body body) {
    const std::optional<Stream_ca> ca = ca_of(es_pid, body);
    if (ca && std::find(out.ca.begin(), out.ca.end(), *ca) == out.ca.end())
      out.ca.push_back(*ca);
  };
  section = section.first(section.size() - CRC_SIZE);
  const size_t programme_size = length12(section, PROGRAMME_LOOP);
  Body left = section.subspan(PROGRAMME_LOOP + 2);
  for_each_descriptor(first(left, programme_size), [&](int tag, Body body) {
    if (tag == tag::CA)
      note_ca(0, body);
  });
  left = behind(left, programme_size);

  constexpr size_t HEADER = 5;  // type, PID, length
  while (left.size() >= HEADER) {
    const int es_pid = pid_at(left, 1);
    Stream_reader stream(left[0], es_pid);
    const size_t size = length12(left, 3);
    const bool again = std::any_of(out.streams.begin(), out.streams.end(),
                                   [=](const Stream_detail& other) { return other.es_pid == es_pid; });
    for_each_descriptor(first(left.subspan(HEADER), size), [&](int tag, Body body) {
      if (tag == tag::CA && !again)
        note_ca(es_pid, body);
      stream.descriptor(tag, body);
    });
    if (!again)
      out.streams.push_back(stream.finish());
    left = behind(left, HEADER + size);
  }
  return out;
}
