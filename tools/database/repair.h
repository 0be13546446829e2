// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

class Sdbl;

// The copy of the channel file that the command keeps beside it: "dvb.db.good".
std::string good_copy_of(const std::string& file);

// Writes it, where there are channels: a list that is empty by accident must not replace the last good one. That it
// cannot be written is said in a line; what was to be copied is none the worse for it.
void keep_good_copy(Sdbl* database, const std::string& file);

// What a look at one of the two files has found.
struct File_state {
  enum State { SOUND, DAMAGED, MISSING };
  State state = SOUND;
  std::vector<std::string> problems;  // of a damaged one, each on one line; not all of them
  int rows = 0;                       // channels or events, of a sound one
};

// Looks at a file of the database, whose rows are in this table. What a killed process has left to be undone is undone.
// Throws Failure when it is in use, or cannot be read for another reason than damage.
File_state look_at(const std::string& file, const std::string& table);

// What became of a file, and of the damaged one.
struct Repair {
  std::string from;   // the copy that is in its place now; empty: a new file, with the rows that could be read
  std::string aside;  // where the damaged file is; empty where there was none
  int rows = 0;
};

// Puts a sound file in the place of a damaged one, which is moved aside and never deleted: the copy, if `copy` names
// one that is sound, else the rows that can be read in a new file. Throws Failure, and `file` is as it was.
Repair mend(const std::string& file, const std::string& table, const std::string& copy);
