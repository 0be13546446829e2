#pragma once

#include <string>
#include <vector>

#include "softdvb/model/shared.h"

// What the launcher was asked for: options and the lines of a configuration file are the same pairs of key and value.
namespace softdvb {

struct Mux_config {
  uint32_t freq;
  std::string file;
};

struct Adapter_config {
  int number = 0;
  std::vector<Mux_config> muxes;
  std::string pace = "pcr";
  std::string start = "tune";
  bool loop = true;
  std::string type = "ofdm";
  std::string frequency_range;
  std::string tuned;
  std::vector<std::string> signals;
  std::vector<std::string> without;
  std::vector<std::string> deliveries;
  std::vector<std::string> stops;
  std::vector<std::string> sections;
  double offset_s = 0;
  uint32_t lock_delay_ms = 50;
  uint32_t look_interval_ms = 300;
  int dead_reopen = 0;
};

class Config {
 public:
  // One option by its long name without dashes. `adapter` begins the options of another adapter.
  // Throws Usage_error.
  void set(const std::string& key, const std::string& value);

  // Lines "key = value", "key" for switches, "[adapter N]" for a section, "#" comments. File names in it are relative
  // to it. Throws std::runtime_error when it cannot be read, Usage_error with file and line when it is wrong.
  void read_file(const std::string& file);

  // Writes everything into the shared record and the indexes of the streams into `run_dir`. Throws as above.
  void fill(Shared& s, const std::string& run_dir) const;

  const std::string& root() const { return root_; }
  bool keep() const { return keep_; }

  // Every key that set() knows, with the form of its value ("" for a switch) and one line of help.
  struct Key {
    const char* name;
    const char* value;
    const char* help;
  };
  static const std::vector<Key>& keys();

 private:
  Adapter_config& current();
  void fill_adapter(Shared& s, Adapter& a, const Adapter_config& c, const std::string& run_dir) const;

  std::vector<Adapter_config> adapters_;
  size_t current_ = 0;
  std::vector<std::string> faults_;
  std::string root_;
  std::string log_;
  std::string folder_;  // of the configuration file that is being read
  double speed_ = 1.0;
  double now_ = -1;
  double grace_ms_ = -1;
  bool keep_ = false;
};

}  // namespace softdvb
