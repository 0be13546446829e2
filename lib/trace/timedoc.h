// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include "base/export.h"
#include "trace/tdi_lookup.h"

// Recorder of timed events: controls the trace buffer of the set-top box's chip and writes what it holds as hexadecimal
// lines or in the TDI text format of the TimeDoctor viewer.
//
// It is built disabled: no trace device is opened (descriptor -1), so recording does nothing and says so at
// verbosity 3. Converting records that came from elsewhere works. One thread at a time.
//
// Failures: no operation returns one. A device that does not answer is silent; what else fails is said below.
class KELVO_EXPORT Timedoc {
 public:
  Timedoc();

  Timedoc(const Timedoc&) = delete;
  Timedoc& operator=(const Timedoc&) = delete;

  // Start, stop and clear the recording, each told at verbosity 2. Starting twice is starting once; stopping does
  // nothing unless started, and else prints how full the buffer is, in words of 32 bits and in per cent. The object
  // counts as recording or not whether or not the device has followed.
  void tdoc_record();
  void tdoc_pause();
  void tdoc_reset();

  // Record a note with a value (the first four characters of `name` count), and the start and end of a named event (the
  // first eight). The device adds the time. Nothing keeps `name`.
  void tdoc_note(const char* name, unsigned int value);
  void start_tdoc_ev(const char* name);
  void end_tdoc_ev(const char* name);

  // Packs up to eight characters, four a word, the first in the most significant byte of `*word1`; zero bytes stand
  // behind a shorter name.
  void tdoc_name(unsigned int* word2, unsigned int* word1, const char* name);

  // Unpack one or two such words, up to the first zero byte. The text belongs to the object and is valid until the next
  // call.
  char* get_tr_name(unsigned int word);
  char* get_tr_name(unsigned int word2, unsigned int word1);

  // Descriptor that printf_tdi and convert_to_tdi write to; -1, nowhere, at first. Not owned: the caller closes it,
  // after the last write. write_file uses one of its own.
  void set_output(int descriptor);

  // Formats a line of at most 255 bytes to the output. What cannot be written is lost, without a message.
  void printf_tdi(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  // Position of the entry with this name and key in the caller's list; appended, with `*inserted` true, when there is
  // none, and the list unchanged, with false, when there is one.
  int lookup_insert_id(std::vector<TDI_lookup>* list, const char* name, int key, bool* inserted);

  // Writes `words` 32-bit words of records (four words each: time, control, two of data) as TDI text with printf_tdi.
  // The records are only read. A record that makes no sense is printed as an error and left out; the words of an
  // incomplete last one are ignored, and less than one record is header and end alone.
  void convert_to_tdi(unsigned int* records, int words);

  // Writes the recorded buffer to `file`, replacing it; `format` is "log" or "tdi", and any other leaves an empty file.
  // Prints an error and leaves `file` alone when the buffer cannot be mapped; is silent when `file` cannot be opened.
  void write_file(const char* file, const char* format);

 private:
  class Converter;

  void add(unsigned int control, unsigned int data1, unsigned int data2);

  int device_;
  int output_;
  char name_[9];
  bool recording_;
};
