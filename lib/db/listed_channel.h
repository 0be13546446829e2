// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

// A service of the channel list: its row of kanalid as a host shows it. A value; texts are valid UTF-8 without control
// characters, whatever profile stored them.
struct Listed_channel {
  int channel = 0;  // its row, which stays as long as the database: what requests and the guide know the service by
  int number = -1;  // logical channel number (table column lcn); -1 for none
  std::string name;
  std::string provider;
  std::string network;
  int type = 0;                 // service_type (EN 300 468, table 87): 1, 17, 22, 25, 31 television, 2, 10 radio
  int freq = 0;                 // of its multiplex, in Hz, as tune_to_freq takes it; of a DVB-T2 pipe plus its number
  int service_id = 0;           // program number of the PAT
  int original_network_id = 0;  // this and the next are 0 where no NIT came
  int transport_stream_id = 0;
  bool scrambled = false;  // free_CA_mode of the SDT
  bool hidden = false;     // its network asks receivers not to list it; known only where the profile reads that
  bool lost = false;       // the last scan of its multiplex did not find it, or another service has its place
};
