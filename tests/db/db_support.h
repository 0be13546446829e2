#pragma once

#include <string>

#include "support/database.h"

// Rows and statements of a database that a test holds itself; support/database.h has the rest.
namespace db_support {

using support::conn_of;
using support::Other_connection;
using support::rows;
using support::run;

inline support::Texts rows(Sdbl& sdbl, const std::string& sql) {
  return support::rows(conn_of(sdbl), sql);
}

inline int run(Sdbl& sdbl, const std::string& sql) {
  return support::run(conn_of(sdbl), sql);
}

// The first column of the first row as a number; -9999 without one.
inline int number(Sdbl& sdbl, const std::string& sql) {
  const support::Texts all = rows(sdbl, sql);
  return all.empty() ? -9999 : std::stoi(all[0]);
}

inline support::Texts statements(const std::string& trace) {
  return support::statements_in(trace);
}

}  // namespace db_support
