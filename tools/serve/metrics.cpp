// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/serve/metrics.h"

#include <linux/dvb/frontend.h>

#include <functional>

#include "tools/engine/tuning_text.h"
#include "tools/serve/exposition.h"

namespace {

using Labels = Exposition::Labels;
using Kind = Exposition::Kind;

constexpr double PERCENT = 100;

// Of the adapters that are tuned; labels of adapter and multiplex.
void for_each_tuned(const Station_state& station,
                    const std::function<void(const Labels&, const Adapter_state&)>& action) {
  for (const auto& [number, adapter] : station.adapters) {
    if (adapter.open && adapter.freq != 0) {
      action({{"adapter", std::to_string(number)}, {"frequency", std::to_string(adapter.freq)}}, adapter);
    }
  }
}

void for_each_multiplex(const Station_state& station,
                        const std::function<void(const Labels&, const Multiplex_state&)>& action) {
  for (const auto& [key, multiplex] : station.multiplexes) {
    action({{"adapter", std::to_string(key.first)}, {"frequency", std::to_string(key.second)}}, multiplex);
  }
}

// A reading stands in the family of its unit; what a device gives on a scale of its own is not comparable, and left
// out.
void add_reading(Exposition* out, const Station_state& station, const Signal_value Signal_readings::*reading, int scale,
                 const char* name, const char* help, double divisor = 1) {
  out->family(name, Kind::GAUGE, help);
  for_each_tuned(station, [&](const Labels& labels, const Adapter_state& adapter) {
    const Signal_value& value = adapter.signal.*reading;
    if (value.scale == scale) {
      out->sample(labels, value.value / divisor);
    }
  });
}

void add_signal(Exposition* out, const Station_state& station) {
  out->family("kelvo_adapter_up", Kind::GAUGE,
              "1 while the adapter is open, 0 while it has nothing to do or cannot be had.");
  for (const auto& [number, adapter] : station.adapters) {
    out->sample({{"adapter", std::to_string(number)}}, adapter.open ? 1 : 0);
  }
  out->family("kelvo_adapter_info", Kind::GAUGE, "The device of an adapter, by its driver's name; always 1.");
  for (const auto& [number, adapter] : station.adapters) {
    out->sample({{"adapter", std::to_string(number)}, {"device", adapter.device}}, 1);
  }
  out->family("kelvo_signal_locked", Kind::GAUGE, "1 where the adapter has a lock on the multiplex it is tuned to.");
  for_each_tuned(station, [&](const Labels& labels, const Adapter_state& adapter) {
    out->sample(labels, (adapter.signal.status & FE_HAS_LOCK) != 0 ? 1 : 0);
  });
  add_reading(out, station, &Signal_readings::strength, SCALE_DECIBEL, "kelvo_signal_strength_dbm",
              "Strength of the signal in dBm.");
  add_reading(out, station, &Signal_readings::strength, SCALE_RELATIVE, "kelvo_signal_strength_ratio",
              "Strength of the signal as a part of the driver's range, 0 to 1.", PERCENT);
  add_reading(out, station, &Signal_readings::snr, SCALE_DECIBEL, "kelvo_signal_snr_decibels",
              "Signal to noise ratio in dB.");
  add_reading(out, station, &Signal_readings::snr, SCALE_RELATIVE, "kelvo_signal_snr_ratio",
              "Signal to noise ratio as a part of the driver's range, 0 to 1.", PERCENT);
  add_reading(out, station, &Signal_readings::pre_ber, SCALE_RATE, "kelvo_signal_bit_error_ratio",
              "Bit errors before the inner code's correction, a bit.");
  add_reading(out, station, &Signal_readings::post_ber, SCALE_RATE, "kelvo_signal_corrected_bit_error_ratio",
              "Bit errors behind the inner code's correction, a bit.");
  add_reading(out, station, &Signal_readings::block_errors, SCALE_RATE, "kelvo_signal_block_error_ratio",
              "Blocks that could not be corrected, a block.");
  add_reading(out, station, &Signal_readings::block_errors, SCALE_DRIVER, "kelvo_signal_uncorrected_blocks",
              "Blocks that could not be corrected, as the driver counts them.");
  out->family("kelvo_signal_age_seconds", Kind::GAUGE, "How long ago the readings of the signal were taken.");
  for_each_tuned(station, [&](const Labels& labels, const Adapter_state& adapter) {
    if (adapter.signal.age_ms >= 0) {
      out->sample(labels, static_cast<double>(adapter.signal.age_ms) / 1000);
    }
  });
}

void add_sections(Exposition* out, const Station_state& station) {
  const auto add = [&](const char* name, const char* help, uint64_t Multiplex_state::*count) {
    out->family(name, Kind::COUNTER, help);
    for_each_multiplex(
        station, [&](const Labels& labels, const Multiplex_state& multiplex) { out->count(labels, multiplex.*count); });
  };
  add("kelvo_sections_total", "Sections of tables that were read whole.", &Multiplex_state::sections);
  add("kelvo_section_crc_errors_total", "Sections that came broken.", &Multiplex_state::crc_errors);
  add("kelvo_section_overflows_total", "Overflows of the kernel's buffer; each lost one section or more.",
      &Multiplex_state::overflows);
}

void add_guide_of_adapters(Exposition* out, const Station_state& station, int64_t now) {
  out->family("kelvo_guide_services", Kind::GAUGE, "Services of the multiplex whose guide is collected.");
  for_each_multiplex(station, [&](const Labels& labels, const Multiplex_state& multiplex) {
    if (multiplex.services > 0) {
      out->sample(labels, multiplex.services);
    }
  });
  out->family("kelvo_guide_completeness_ratio", Kind::GAUGE,
              "Part of these services whose guide is there as it is sent, 0 to 1.");
  for_each_multiplex(station, [&](const Labels& labels, const Multiplex_state& multiplex) {
    if (multiplex.services > 0) {
      out->sample(labels, static_cast<double>(multiplex.complete) / multiplex.services);
    }
  });
  out->family("kelvo_guide_age_seconds", Kind::GAUGE, "How long ago the guide of the multiplex was last complete.");
  for_each_multiplex(station, [&](const Labels& labels, const Multiplex_state& multiplex) {
    if (multiplex.completed != 0) {
      out->sample(labels, static_cast<double>(now - multiplex.completed));
    }
  });
}

void add_scan(Exposition* out, const Scan_state& scan) {
  out->family("kelvo_scan_running", Kind::GAUGE, "1 while a scan runs.");
  out->sample({}, scan.running ? 1 : 0);
  if (scan.begun != 0) {
    out->family("kelvo_scan_frequencies", Kind::GAUGE, "Frequencies of the scan that runs or was last.");
    out->sample({}, static_cast<double>(scan.total));
    out->family("kelvo_scan_frequencies_done", Kind::GAUGE, "Those of them that are done.");
    out->sample({}, static_cast<double>(scan.done));
    out->family("kelvo_scan_duration_seconds", Kind::GAUGE, "How long it has been running, or took.");
    out->sample({}, scan.seconds);
    out->family("kelvo_scan_start_timestamp_seconds", Kind::GAUGE, "When that scan began.");
    out->sample({}, static_cast<double>(scan.begun));
  }
}

void add_stored(Exposition* out, const Metrics_source& source) {
  const auto add = [&](const char* name, const char* help, const std::function<double(const Stored_multiplex&)>& value,
                       bool only_with_events) {
    out->family(name, Kind::GAUGE, help);
    for (const auto& [freq, multiplex] : *source.multiplexes) {
      if (!only_with_events || multiplex.events > 0) {
        out->sample({{"frequency", std::to_string(freq)}}, value(multiplex));
      }
    }
  };
  out->family("kelvo_multiplex_info", Kind::GAUGE, "What is known of a multiplex; always 1.");
  for (const auto& [freq, multiplex] : *source.multiplexes) {
    out->sample({{"frequency", std::to_string(freq)},
                 {"network", multiplex.network},
                 {"transport_stream", std::to_string(multiplex.transport_stream_id)}},
                1);
  }
  add(
      "kelvo_channels", "Channels of the multiplex in the channel list.",
      [](const Stored_multiplex& multiplex) { return multiplex.channels; }, false);
  add(
      "kelvo_guide_events", "Events of the multiplex's channels in the guide.",
      [](const Stored_multiplex& multiplex) { return multiplex.events; }, false);
  add(
      "kelvo_guide_end_timestamp_seconds", "When the last event of the multiplex's guide ends.",
      [](const Stored_multiplex& multiplex) { return static_cast<double>(multiplex.guide_end); }, true);
  if (source.guide_changed) {
    out->family("kelvo_guide_change_timestamp_seconds", Kind::GAUGE, "When the file of the guide was written to last.");
    out->sample({}, static_cast<double>(*source.guide_changed));
  }
}

}  // namespace

std::string metrics_text(const Metrics_source& source) {
  Exposition out;
  if (source.station != nullptr) {
    add_signal(&out, *source.station);
    add_sections(&out, *source.station);
    add_guide_of_adapters(&out, *source.station, source.now);
    add_scan(&out, source.station->scan);
  }
  add_stored(&out, source);
  out.family("kelvo_http_answers_total", Kind::COUNTER, "Answers of this server, by status.");
  for (const auto& [status, count] : *source.answers) {
    out.count({{"status", std::to_string(status)}}, count);
  }
  out.family("kelvo_http_event_streams", Kind::GAUGE, "Clients that listen for changes.");
  out.sample({}, static_cast<double>(source.event_streams));
  return out.text();
}
