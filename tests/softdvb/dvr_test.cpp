// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/session.h"

// Packet filters and dvr0. All of it was seen on Linux's own core. A section of 100 bytes is one packet, one of 500
// three; 256 is the PID where none is named.

using device::expect_plays;

TEST(Dvr, gets_what_packet_filters_are_set_for) {
  expect_plays(
      {{"nothing at first", "dvr: read = EAGAIN, dvr: ready"},
       {"packets, as many bytes as are wanted",
        "dvr: open, packets 256 dvr, send 500#1, dvr: ready = data, dvr: read 100 = 100, dvr: read 1000 = 464, "
        "dvr: read = EAGAIN"},
       {"nothing for the filter's own handle", "packets 256 dvr, send 100#1, ready, read = EAGAIN"},
       {"no packet that came before it was opened",
        "packets 256 dvr, send 100#1, dvr: read = EAGAIN, send 100#1, dvr: read = 188"},
       {"no other PID", "dvr: open, packets 256 dvr, send 100#1 257, dvr: read = EAGAIN"},
       {"one packet once, however many filters want it",
        "dvr: open, packets 256 dvr, b: packets 256 dvr, c: packets 8192 dvr, send 100#1, send 100#1 300, "
        "dvr: read = 376"},
       {"what was queued, also when the filter has stopped",
        "dvr: open, packets 256 dvr, send 100#1, stop, send 100#1, dvr: read = 188, start, send 100#1, close, "
        "dvr: read = 188"},
       {"nothing that goes elsewhere",
        "dvr: open, packets 256 decoder, send 100#1, packets 256 own, send 100#1, "
        "dvr: read = EAGAIN, read = 188"},
       {"not what is no packet filter", "dvr: start = ENOTTY, dvr: stop = ENOTTY, dvr: packets 256 dvr = ENOTTY"}});
}

TEST(Dvr, is_read_by_one_at_a_time) {
  expect_plays({{"the second", "dvr: open, dvr2: open = EBUSY, dvr: close, dvr2: open"}});
  EXPECT_EQ(device::result(open("/dev/dvb/adapter0/dvr0", O_RDWR)), -EOPNOTSUPP);
}

TEST(Dvr, overflows_once_and_with_all_that_was_queued) {
  expect_plays(
      {{"ten packets and a byte",
        "dvr: buffer 1881, packets 256 dvr, send 1800#1, dvr: ready = data, send 100#1, dvr: ready = error, "
        "send 100#1, dvr: read = EOVERFLOW, dvr: read = EAGAIN, send 100#1, dvr: read = 188"},
       {"another size takes the queue away, the same one nothing",
        "dvr: buffer 0 = EINVAL, dvr: open, packets 256 dvr, send 100#1, dvr: buffer 1925120, dvr: ready = data, "
        "dvr: buffer 1881, dvr: read = EAGAIN"},
       {"and the error as well",
        "dvr: buffer 1881, packets 256 dvr, send 4000#1, dvr: ready = error, dvr: buffer 4000, dvr: read = EAGAIN"}});
}

TEST(Packet_filter, has_several_pids_only_where_it_is_read_itself) {
  expect_plays(
      {{"not before it is one", "add 257 = EINVAL, filter 256, add 257 = EINVAL"},
       {"not towards dvr0",
        "dvr: open, packets 256 dvr, add 257 = EINVAL, send 100#1 257, dvr: read = EAGAIN, remove 256, send 100#1, "
        "dvr: read = EAGAIN, add 257, send 100#1 257, dvr: read = 188"},
       {"nor of payloads", "packets 256 payload, add 257 = EINVAL, send 100#1, read = 184"},
       {"each as often as it was added",
        "packets 256 own, add 257, send 100#1, send 100#1 257, read = 376, add 257, send 100#1 257, read = 376, "
        "remove 257, send 100#1 257, read = EAGAIN, remove 300"},
       {"the whole stream beside one",
        "packets 256 own, add 8192, send 100#1, send 100#1 300, read = 564, packets 8192 own, send 100#1, "
        "send 100#1 300, read = 376"},
       {"a wrong one stays", "packets 256 own, add 8193 = EINVAL, start = EINVAL"},
       {"nothing is removed of one that does not run",
        "packets 256 own idle, add 257, remove 257, start, send 100#1, send 100#1 257, read = 376"}});
}

TEST(Packet_filter, of_a_decoder_has_its_type_alone) {
  expect_plays({{"one video", "packets 256 dvr type:1, b: packets 257 dvr type:1 = EINVAL, b: packets 257 dvr type:0"},
                {"whose PIDs can be asked for, also when they have stopped",
                 "packets 256 dvr type:1, b: packets 257 dvr type:0, stop, decoder = 257 256"},
                {"free when it has stopped",
                 "packets 256 dvr type:1, stop, b: packets 259 dvr type:1, start = EINVAL, b: close, start"},
                {"not with a second PID", "packets 256 own type:1, add 257 = EINVAL"},
                {"a type that there is not takes the filter away",
                 "packets 256 own, packets 256 own type:21 = EINVAL, start = EINVAL"}});
}
