// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/ioctl_names.h"

#include <linux/dvb/dmx.h>
#include <linux/dvb/frontend.h>
#include <stdio.h>
#include <sys/ioctl.h>

namespace softdvb {

struct Name {
  unsigned long request;
  const char* name;
};

static const Name FRONTEND_NAMES[] = {
    {FE_GET_INFO, "FE_GET_INFO"},
    {FE_READ_STATUS, "FE_READ_STATUS"},
    {FE_READ_BER, "FE_READ_BER"},
    {FE_READ_SIGNAL_STRENGTH, "FE_READ_SIGNAL_STRENGTH"},
    {FE_READ_SNR, "FE_READ_SNR"},
    {FE_READ_UNCORRECTED_BLOCKS, "FE_READ_UNCORRECTED_BLOCKS"},
    {FE_SET_FRONTEND, "FE_SET_FRONTEND"},
    {FE_GET_FRONTEND, "FE_GET_FRONTEND"},
    {FE_GET_EVENT, "FE_GET_EVENT"},
    {FE_SET_PROPERTY, "FE_SET_PROPERTY"},
    {FE_GET_PROPERTY, "FE_GET_PROPERTY"},
    {FE_SET_TONE, "FE_SET_TONE"},
    {FE_SET_VOLTAGE, "FE_SET_VOLTAGE"},
    {FE_SET_FRONTEND_TUNE_MODE, "FE_SET_FRONTEND_TUNE_MODE"},
    {FE_DISEQC_SEND_MASTER_CMD, "FE_DISEQC_SEND_MASTER_CMD"},
    {FE_DISEQC_SEND_BURST, "FE_DISEQC_SEND_BURST"},
};

static const Name DEMUX_NAMES[] = {
    {DMX_START, "DMX_START"},
    {DMX_STOP, "DMX_STOP"},
    {DMX_SET_FILTER, "DMX_SET_FILTER"},
    {DMX_SET_PES_FILTER, "DMX_SET_PES_FILTER"},
    {DMX_SET_BUFFER_SIZE, "DMX_SET_BUFFER_SIZE"},
    {DMX_GET_PES_PIDS, "DMX_GET_PES_PIDS"},
    {DMX_GET_STC, "DMX_GET_STC"},
    {DMX_ADD_PID, "DMX_ADD_PID"},
    {DMX_REMOVE_PID, "DMX_REMOVE_PID"},
};

template <size_t N>
static const char* find_name(const Name (&names)[N], unsigned long request) {
  for (const Name& n : names)
    if (n.request == request)
      return n.name;
  return nullptr;
}

std::string ioctl_name(Device device, unsigned long request) {
  const char* name = device == Device::FRONTEND ? find_name(FRONTEND_NAMES, request) : find_name(DEMUX_NAMES, request);
  if (name != nullptr)
    return name;
  char number[32];
  snprintf(number, sizeof number, "0x%lx", request);
  return number;
}

bool is_ioctl_name(const std::string& name) {
  for (const Name& n : FRONTEND_NAMES)
    if (name == n.name)
      return true;
  for (const Name& n : DEMUX_NAMES)
    if (name == n.name)
      return true;
  return false;
}

static std::string bytes_of(const uint8_t* bytes, size_t n) {
  while (n > 1 && bytes[n - 1] == 0)
    --n;
  std::string text;
  for (size_t i = 0; i < n; ++i) {
    char two[3];
    snprintf(two, sizeof two, "%02x", static_cast<unsigned>(bytes[i]));
    text += two;
  }
  return text;
}

static std::string describe(Device device, unsigned long request, const void* argument, bool done) {
  char text[256] = "";
  if (device != Device::FRONTEND && request == DMX_SET_BUFFER_SIZE) {
    snprintf(text, sizeof text, " %lu", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(argument)));
    return text;
  }
  if (argument == nullptr)
    return "";
  if (device != Device::FRONTEND) {
    if (request == DMX_SET_FILTER) {
      const auto& p = *static_cast<const dmx_sct_filter_params*>(argument);
      snprintf(text, sizeof text, " pid=0x%x filter=%s mask=%s mode=%s timeout=%u flags=0x%x", p.pid,
               bytes_of(p.filter.filter, DMX_FILTER_SIZE).c_str(), bytes_of(p.filter.mask, DMX_FILTER_SIZE).c_str(),
               bytes_of(p.filter.mode, DMX_FILTER_SIZE).c_str(), p.timeout, p.flags);
    } else if (request == DMX_SET_PES_FILTER) {
      const auto& p = *static_cast<const dmx_pes_filter_params*>(argument);
      snprintf(text, sizeof text, " pid=0x%x output=%d type=%d flags=0x%x", p.pid, static_cast<int>(p.output),
               static_cast<int>(p.pes_type), p.flags);
    } else if (request == DMX_ADD_PID || request == DMX_REMOVE_PID) {
      snprintf(text, sizeof text, " pid=0x%x", *static_cast<const uint16_t*>(argument));
    }
    return text;
  }
  switch (request) {
    case FE_READ_STATUS:
    case FE_READ_BER:
    case FE_READ_UNCORRECTED_BLOCKS:
      if (done)
        snprintf(text, sizeof text, " 0x%x", *static_cast<const uint32_t*>(argument));
      break;
    case FE_READ_SIGNAL_STRENGTH:
    case FE_READ_SNR:
      if (done)
        snprintf(text, sizeof text, " 0x%x", static_cast<unsigned>(*static_cast<const uint16_t*>(argument)));
      break;
    case FE_GET_FRONTEND:
    case FE_SET_FRONTEND: {
      if (!done && request == FE_GET_FRONTEND)
        break;
      const auto& p = *static_cast<const dvb_frontend_parameters*>(argument);
      const dvb_ofdm_parameters& o = p.u.ofdm;
      snprintf(text, sizeof text, " freq=%u inv=%d bw=%d hp=%d lp=%d const=%d mode=%d guard=%d hier=%d", p.frequency,
               static_cast<int>(p.inversion), static_cast<int>(o.bandwidth), static_cast<int>(o.code_rate_HP),
               static_cast<int>(o.code_rate_LP), static_cast<int>(o.constellation),
               static_cast<int>(o.transmission_mode), static_cast<int>(o.guard_interval),
               static_cast<int>(o.hierarchy_information));
      break;
    }
    case FE_GET_EVENT:
      if (done) {
        const auto& e = *static_cast<const dvb_frontend_event*>(argument);
        snprintf(text, sizeof text, " status=0x%x freq=%u", static_cast<unsigned>(e.status), e.parameters.frequency);
      }
      break;
    case FE_SET_PROPERTY: {
      std::string all;
      const auto& list = *static_cast<const dtv_properties*>(argument);
      for (uint32_t i = 0; i < list.num && i < 16 && list.props != nullptr; ++i) {
        snprintf(text, sizeof text, " %u=%u", list.props[i].cmd, list.props[i].u.data);
        all += text;
      }
      return all;
    }
    default:
      break;
  }
  return text;
}

std::string describe_ioctl(Device device, unsigned long request, const void* argument, bool done) {
  return ioctl_name(device, request) + describe(device, request, argument, done);
}

}  // namespace softdvb
