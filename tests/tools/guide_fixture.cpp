// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/guide_fixture.h"

const std::string Guide_fixture::DAY_OF_EVENTS =
    R"(, "schedule": { "from": "today", "days": 1, "programmes": [{ "duration": "30m", "name": "Uudised", "text": "Ilm" }] })";

std::string Guide_fixture::service(int id, int lcn, const std::string& name, const std::string& more) {
  return R"({ "service_id": )" + std::to_string(id) + R"(, "lcn": )" + std::to_string(lcn) + R"(, "name": ")" + name +
         R"(", "provider": "Meedia", "streams": [{ "type": "mpeg2-audio", "languages": ["est"] }])" + more + " }";
}

Words Guide_fixture::mux(const std::string& mhz, const std::string& services, const std::string& more) {
  static const support::Temp_dir folder;
  static int number = 0;
  const std::string stream = folder.file(std::to_string(++number) + ".ts");
  const std::string description = stream + ".json";
  const std::string id = mhz == "514" ? "2" : "1";
  support::write_file(description,
                      R"({ "fast": true, "duration": 30, "payload_rate": 0, "time": { "tdt": false, "tot": false },
                           "original_network_id": 65281,
                           "network": { "name": "Kuldnokk", "transport_streams": [{ "transport_stream_id": )" +
                          id + R"( }] }, "language": "est", "transport_stream_id": )" + id + R"(, "services": [)" +
                          services + "]" + more + "}");
  const Command_result made =
      run_command({SOFTDVB_MUX_COMMAND, description, "-q", "-o", stream, "--now", "2026-03-01T18:00:00Z"});
  EXPECT_EQ(made.exit_code, 0) << made.err;
  return {"--mux", mhz + "000000=" + stream};
}

Words Guide_fixture::at_speed(const std::string& speed, const Words& muxes) {
  return joined({{"--time", speed, "--now", "1772388000"}, muxes});
}

const Words& Guide_fixture::two_muxes() {
  static const Words made =
      joined({mux("506", service(101, 1, "Kuldnokk", DAY_OF_EVENTS) + "," + service(102, 2, "Öökull", DAY_OF_EVENTS)),
              mux("514", service(201, 11, "Шпак", DAY_OF_EVENTS + R"(, "charset": "iso8859-5")"))});
  return made;
}

Words Guide_fixture::controlled(const Words& options, const Words& command) const {
  const std::string file = dir_.file("control");
  return kelvo(options, command,
               "printf %s \"$SOFTDVB_CONTROL\" >" + file + ".new; mv " + file + ".new " + file + "; exec \"$@\"");
}

void Guide_fixture::control(const std::string& line) const {
  std::ofstream(support::read_file(dir_.file("control")), std::ios::app) << line << std::endl;
}

void Guide_fixture::scan(const Words& options, const Words& freqs) const {
  Words command{"scan"};
  for (const std::string& freq : freqs)
    command = joined({command, {"--freq", freq}});
  const Command_result result = run(options, command);
  ASSERT_EQ(result.exit_code, 0) << result.err;
  // Where the guide is collected whole, a part of it comes with the scan.
  run_sql(guide_, "DELETE FROM epglist; DELETE FROM epglist_lang;");
}

void Guide_fixture::expect_failures(const Words& command, const std::vector<Failing_case>& cases) const {
  const auto files = [&] { return support::read_file(db_) + support::read_file(guide_); };
  for (const Failing_case& c : cases) {
    SCOPED_TRACE(c.legend);
    std::filesystem::remove(db_);
    std::filesystem::remove(guide_);
    make_prepared_db(db_);
    const std::string before = files();
    const std::string err = std::regex_replace(c.err, std::regex("GUIDE"), guide_);
    EXPECT_EQ(run(joined({network(), c.options}), joined({command, c.arguments})),
              fails(std::regex_replace(err, std::regex("DB"), db_), c.exit_code));
    EXPECT_EQ(files(), before);
  }
}
