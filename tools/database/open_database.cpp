#include "tools/database/open_database.h"

#include <iterator>

#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/failure.h"
#include "tools/database/channel_db.h"

std::unique_ptr<Sdbl> open_database(const std::string& file, bool exists, console::Quiet_library* quiet) {
  std::unique_ptr<Sdbl> database;
  try {
    database = std::make_unique<Sdbl>(file.c_str());
  } catch (const no_file_error& error) {
    throw Failure(fmt::format("{}: cannot be opened: {}", file, error.what()));
  }
  try {
    quiet->check_written(file);
  } catch (const Failure&) {
    database.reset();
    if (!exists) {
      remove_database(file);
    }
    throw;
  }
  return database;
}

void collect_all_guides(Sdbl* database) {
  constexpr int TYPES[] = {1, 2, 10, 17, 22, 25, 31};
  database->set_eit_service_types(TYPES, std::size(TYPES));
}
