// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

namespace sdbl {

// A copy on its way: a file of this process's own, named after `base`, that takes its place by a rename. Other
// processes may export beside the same name at the same time. Used by one thread at a time.
class Export_file {
 public:
  // Makes the file, empty, and removes what exports that did not end have left beside it. A folder at `base` itself
  // stands in the way. made() tells whether there is a file; `errno` says why there is none.
  explicit Export_file(const std::string& base);
  // Removes the file, unless it has been put in its place.
  ~Export_file();
  Export_file(const Export_file&) = delete;
  Export_file& operator=(const Export_file&) = delete;

  bool made() const { return handle_ >= 0; }
  const std::string& path() const { return path_; }

  // Puts the file in the place of `target`, once it is on the disk: readers see the old file or the new one, and the
  // old one stays until then. Across file systems it goes by way of a file beside `target`. What cannot be done is
  // printed, by the command mv where the name is at fault, and `target` stays as it is.
  void put(const std::string& target);

 private:
  bool take(const std::string& path);
  void copy_over(const std::string& target) const;

  std::string path_;
  int handle_ = -1;  // holds a lock by which other processes see that the file is in use
};

// Writes to the disk that `file` stands in its folder.
void sync_folder(const std::string& file);

}  // namespace sdbl
