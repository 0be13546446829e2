// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/plug.h"

#include <filesystem>
#include <fstream>
#include <string>

#include "softdvb/model/frontend_calls.h"
#include "softdvb/model/handles.h"

namespace softdvb {

namespace fs = std::filesystem;

static fs::path folder_of(const Adapter& a) {
  return fs::path(a.run_dir) / "dev/dvb" / ("adapter" + std::to_string(a.number));
}

void make_device_nodes(const Adapter& a) {
  const fs::path folder = folder_of(a);
  std::error_code ignored;
  fs::create_directories(folder, ignored);
  std::ofstream(folder / device_name(a, Device::FRONTEND)).flush();
  if (a.frontend != 0)
    return;
  for (const Device device : {Device::DEMUX, Device::DVR})
    std::ofstream(folder / device_name(a, device)).flush();
}

static bool has_handles(const Adapter& a) {
  for (const int owner : a.demux_owner)
    if (is_process_alive(owner))
      return true;
  return false;
}

void remove_unused_nodes(const Adapter& a) {
  if (a.unplugged.load() == 0 || has_handles(a))
    return;
  std::error_code ignored;
  fs::remove_all(folder_of(a), ignored);
  // The last adapter takes the folder of all with it; while there are others it is not empty and stays.
  fs::remove(folder_of(a).parent_path(), ignored);
}

void unplug(Adapter& a) {
  if (a.unplugged.load() != 0)
    return;
  std::error_code ignored;
  for (Adapter& each : frontends_of(a)) {
    // The cached system and all that is tuned are gone with the device.
    each.fe = Frontend{};
    each.cache = each.fe.asked = untuned(each, first_delivery(each));
    each.unplugged.store(1);
    each.plug_generation.fetch_add(1);
    fs::remove(folder_of(each) / device_name(each, Device::FRONTEND), ignored);
  }
  a.stream_generation.fetch_add(1);
  a.dvr_owner = 0;
  for (std::atomic<int32_t>& pid : a.dvr_pid)
    pid.store(0);
  a.dvr_changes.fetch_add(1);
  for (int32_t& slot : a.pes_slot)
    slot = 0;
  remove_unused_nodes(a);
}

void plug_in(Adapter& a) {
  if (a.unplugged.load() == 0)
    return;
  for (Adapter& each : frontends_of(a)) {
    make_device_nodes(each);
    each.unplugged.store(0);
  }
}

uint64_t plug_by_time(Shared& s, uint64_t now_ns) {
  uint64_t next = 0;
  const auto is_due = [&](uint64_t& at_ns) {
    if (at_ns == 0 || at_ns > now_ns) {
      next = at_ns != 0 && (next == 0 || at_ns < next) ? at_ns : next;
      return false;
    }
    at_ns = 0;
    return true;
  };
  for (int i = 0; i < s.adapter_count; ++i) {
    Adapter& a = s.adapter[i];
    if (a.frontend != 0)
      continue;
    if (is_due(a.unplug_at_ns))
      unplug(a);
    if (is_due(a.replug_at_ns))
      plug_in(a);
    // Programs may have died with handles in their hands.
    remove_unused_nodes(a);
  }
  return next;
}

}  // namespace softdvb
