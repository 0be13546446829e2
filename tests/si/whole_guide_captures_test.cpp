// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Recorded guides, collected whole, against what another library finds in them. Recordings are not part of the tree:
// without them these tests are skipped.
#include <set>

#include "scan/recorded_guide.h"
#include "si/whole_guide_support.h"
#include "softdvb/model/section_feed.h"
#include "support/text.h"

using namespace whole_guide_support;

namespace {

struct Recording {
  const char* file;
  int services;
  int events;
};

std::ostream& operator<<(std::ostream& out, const Recording& recording) {
  return out << recording.file;
}

class Whole_guide_captures : public testing::TestWithParam<Recording>, protected Whole_guide_bench {
 protected:
  // Every section of the guide's PID, in the order of the recording.
  template <typename Use>
  static void each_section(const std::string& stream, Use use) {
    softdvb::Section_feed feed(pid::EIT, true);
    const auto* bytes = reinterpret_cast<const uint8_t*>(stream.data());
    for (size_t at = 0; at + softdvb::TS_PACKET <= stream.size(); at += softdvb::TS_PACKET)
      if ((bytes[at + 1] << 8 | bytes[at + 2]) % 0x2000 == pid::EIT && (bytes[at + 1] & 0x80) == 0)
        feed.packet(bytes + at, [&](const uint8_t* section, size_t size) { use(Bytes(section, section + size)); });
  }
};

TEST_P(Whole_guide_captures, everything_that_is_on_air_is_stored) {
  const std::string file = support::capture_file(GetParam().file);
  if (file.empty())
    GTEST_SKIP() << GetParam().file << " is not here";
  const std::string stream = support::read_file(file);
  std::set<int> services;
  each_section(stream, [&](const Bytes& section) {
    if (section.size() > 5 && section[0] >= NOW_TABLE && section[0] < table::EIT_SCHEDULE_OTHER_FIRST &&
        section[0] != table::EIT_PRESENT_FOLLOWING_OTHER)
      services.insert(section[3] << 8 | section[4]);
  });
  for (const int service : services)
    insert(service, 0, 0, "", 2);
  begin();
  each_section(stream, [&](const Bytes& section) { arrive(section); });

  std::string stored;
  for (const std::string& line : rows(scan_support::STORED_WHOLE_GUIDE))
    stored += support::visible(line) + "\n";
  scan_support::expect_same_guide(scan_support::recorded_guide(file), stored);
  EXPECT_EQ(static_cast<int>(services.size()), GetParam().services);
  EXPECT_EQ(number("SELECT count(*) FROM epglist"), GetParam().events);
  EXPECT_EQ(rows("SELECT channel, start_epoch FROM epglist GROUP BY 1, 2 HAVING count(*) > 1"), Texts{});
  EXPECT_EQ(number("SELECT count(*) FROM event_detail"), GetParam().events);
}

INSTANTIATE_TEST_SUITE_P(
    Recorded, Whole_guide_captures,
    testing::Values(Recording{"gr_crete_2023_complete.ts", 12, 1559}, Recording{"gr_crete_2023_noisy.si.ts", 12, 1559},
                    Recording{"fr_r4_paris_2019_si.ts", 5, 294}, Recording{"cz_db_mux24_2023.si.ts", 17, 1390},
                    Recording{"it_rai_2022.si.ts", 7, 12}, Recording{"eit_hu_2024.ts", 8, 80},
                    Recording{"eit_pl_2023_utf8.ts", 1, 5}, Recording{"eit_pl_2024_8859_13.ts", 11, 53},
                    Recording{"fr_tnt_2018_all.ts", 1, 9}),
    [](const auto& capture) {
      const std::string name = capture.param.file;
      return name.substr(0, name.find('.'));
    });

}  // namespace
