// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/guide_streams.h"

#include "support/command.h"
#include "support/test.h"

const char* const Guide_streams::DAY_OF_EVENTS =
    R"(, "schedule": { "from": "today", "days": 1, "programmes": [{ "duration": "30m", "name": "Uudised", "text": "Ilm" }] })";

std::string Guide_streams::service(int id, int lcn, const std::string& name, const std::string& more) {
  return R"({ "service_id": )" + std::to_string(id) + R"(, "lcn": )" + std::to_string(lcn) + R"(, "name": ")" + name +
         R"(", "provider": "Meedia", "streams": [{ "type": "mpeg2-audio", "languages": ["est"] }])" + more + " }";
}

std::string Guide_streams::make(const std::string& name, int transport_stream_id, const std::string& services,
                                const std::string& more) const {
  const std::string id = std::to_string(transport_stream_id);
  support::write_file(dir_.file(name + ".json"),
                      R"({ "fast": true, "duration": 30, "payload_rate": 0, "time": { "tdt": false, "tot": false },
                           "original_network_id": 65281,
                           "network": { "name": "Kuldnokk", "transport_streams": [{ "transport_stream_id": )" +
                          id + R"( }] }, "language": "est", "transport_stream_id": )" + id + R"(, "services": [)" +
                          services + "]" + more + "}");
  const support::Command_result made = support::run_command(
      {SOFTDVB_MUX_COMMAND, dir_.file(name + ".json"), "-q", "-o", dir_.file(name + ".ts"), "--now", NOW});
  EXPECT_EQ(made.exit_code, 0) << made.err;
  return dir_.file(name + ".ts");
}
