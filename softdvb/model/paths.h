// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "softdvb/model/handles.h"
#include "softdvb/model/shared.h"

// The sandbox: which paths of the command mean something else.
namespace softdvb {

// Holds a rewritten path for the length of a call.
class Path {
 public:
  // /dev/dvb, /dvbfiles, /tmp/zoneinfo and /tmp/testsig, and what lies below them, are moved into the sandbox; every
  // other path, relative ones included, stays as it is.
  explicit Path(const char* path);
  const char* get() const { return result_; }
  operator const char*() const { return result_; }

 private:
  const char* result_;
  char buffer_[2 * MAX_PATH];
};

// "frontend0" to "frontend9".
bool is_frontend_name(const char* name);

struct Device_path {
  int adapter_index = -1;  // of the record, a frontend's own; -1: no device of ours
  Device device = Device::DEMUX;
};
Device_path parse_device_path(const char* path);

// The absolute path of a device that is named from an open folder, as "demux0" from that of its adapter.
class Path_in_folder {
 public:
  // Every other path stays as it is.
  Path_in_folder(int folder, const char* path);
  const char* get() const { return result_; }

 private:
  const char* result_;
  char buffer_[2 * MAX_PATH];
};

}  // namespace softdvb
