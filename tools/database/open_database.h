#pragma once

#include <memory>
#include <string>

#include "tools/cli/console.h"

class Sdbl;

// Opens the files for a command that writes them; Failure when they cannot be opened or written, and those that this
// call made (`exists` false) are gone again then.
std::unique_ptr<Sdbl> open_database(const std::string& file, bool exists, console::Quiet_library* quiet);

// The guide of everything that has one is collected: television, radio and data, not just the library's own choice.
void collect_all_guides(Sdbl* database);
