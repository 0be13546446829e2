// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <dvbsi++/event_information_section.h>
#include <dvbsi++/extended_event_descriptor.h>
#include <dvbsi++/short_event_descriptor.h>

#include "dvbsi/parsed.h"
#include "support/test.h"

namespace {

using dvbsi_test::parsed;
using support::bytes;
using support::descriptor;
using support::join;
using support::loop12;

// Texts and lists are made at the first call of their getter; many threads may be the first.
TEST(Getters, may_be_called_first_by_many_threads_at_once) {
  const auto short_event = descriptor(0x4D, join({bytes("eng"), {20}, bytes("A name of 20 letters"), {1}, bytes("t")}));
  const auto extended = descriptor(0x4E, join({{0x00}, bytes("eng"), {4, 1, 'd', 1, 'i', 0}}));
  const auto section = support::long_section(
      0x4E, 1, 0, join({{0, 1, 0, 2, 0, 0x4E}, support::Bytes(10, 0), loop12(join({short_event, extended}))}));

  for (int round = 0; round < 200; ++round) {
    const auto eit = parsed<EventInformationSection>(section);
    std::vector<const void*> seen(4);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
      threads.emplace_back([&, i] {
        const Event& event = *eit->getEvents()->front();
        const auto* s = dynamic_cast<const ShortEventDescriptor*>(event.getDescriptors()->front());
        const auto* e = dynamic_cast<const ExtendedEventDescriptor*>(event.getDescriptors()->back());
        if (s != nullptr && e != nullptr && s->getEventName() == "A name of 20 letters" && s->getText() == "t" &&
            e->getItems()->size() == 1 && e->getItems()->front()->getItem() == "i")
          seen[i] = e->getItems()->front();
      });
    }
    for (std::thread& thread : threads)
      thread.join();
    for (const void* item : seen) {
      ASSERT_NE(item, nullptr);
      ASSERT_EQ(item, seen.front());
    }
  }
}

}  // namespace
