// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include <kelvo/kelvo.h>

// What a device, a tuning and a signal are in words, alike in every command.

// "DVB-T", "DVB-T2", "DVB-C" and so on; "system 99" for one without a name here.
std::string system_name(int system);

// What was found: "DVB-T", "DVB-T2", "DVB-T2 pipe 3"; "-" when that is not known.
std::string system_text(const Tuning_result& tuning);

// Why nothing is received: "no signal"; "signal, no lock"; "locked, no stream"; "busy: another program has the
// frontend"; ... "no lock" when nothing is known.
std::string no_lock_text(const Tuning_result& tuning);

// "locked", or "locked, reports 577.834 MHz" of a broadcast beside its channel's centre.
std::string locked_text(const Tuning_result& tuning);

// Why the frontend at `path` cannot be used, after it, from the errno of its opening: what people can do about it is
// said where it is known.
std::string frontend_failure(const std::string& path, int error);

// A reading with its unit: "-52.3 dBm", "63 %", "24.1 dB", "2.1e-06", "51400 (driver)"; "-" when there is none.
std::string strength_text(const Signal_value& value);
std::string snr_text(const Signal_value& value);
std::string errors_text(const Signal_value& value);

// The names of the status' bits: "signal carrier viterbi sync lock"; "none".
std::string status_text(unsigned status);

// "lost 3 sections or more (buffer overflow), 1 section came broken"; empty when none were.
std::string lost_text(const std::vector<Lost_sections>& lost);
