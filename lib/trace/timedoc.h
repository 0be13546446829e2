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
class KELVO_EXPORT Timedoc {
 public:
  Timedoc();

  Timedoc(const Timedoc&) = delete;
  Timedoc& operator=(const Timedoc&) = delete;

  // Start, stop and clear the recording. Stopping prints how full the buffer is at verbosity 2.
  void tdoc_record();
  void tdoc_pause();
  void tdoc_reset();

  // Record a note with a value (the first four characters of `name` count), and the start and end of a named event (the
  // first eight).
  void tdoc_note(const char* name, unsigned int value);
  void start_tdoc_ev(const char* name);
  void end_tdoc_ev(const char* name);

  // Packs up to eight characters, four a word, the first in the most significant byte of `*word1`.
  void tdoc_name(unsigned int* word2, unsigned int* word1, const char* name);

  // Unpack one or two such words, up to the first zero byte. The text is valid until the next call.
  char* get_tr_name(unsigned int word);
  char* get_tr_name(unsigned int word2, unsigned int word1);

  // Descriptor that printf_tdi and convert_to_tdi write to; -1, nowhere, at first. Not owned. write_file uses its own.
  void set_output(int descriptor);

  // Formats a line of at most 255 bytes to the output.
  void printf_tdi(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  // Position of the entry with this name and key; appended, with `*inserted` true, when there is none.
  int lookup_insert_id(std::vector<TDI_lookup>* list, const char* name, int key, bool* inserted);

  // Writes `words` 32-bit words of records (four words each: time, control, two of data) as TDI text with printf_tdi.
  void convert_to_tdi(unsigned int* records, int words);

  // Writes the recorded buffer to `file`; `format` is "log" or "tdi". Prints an error and writes nothing when the
  // buffer cannot be mapped.
  void write_file(const char* file, const char* format);

 private:
  class Converter;

  void add(unsigned int control, unsigned int data1, unsigned int data2);

  int device_;
  int output_;
  char name_[9];
  bool recording_;
};
