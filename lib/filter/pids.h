// The PIDs that tables have everywhere (EN 300 468, table 1).
#pragma once

namespace pid {

inline constexpr int PAT = 0x00;
inline constexpr int SDT = 0x11;
inline constexpr int EIT = 0x12;
inline constexpr int TIME = 0x14;  // TDT and TOT
inline constexpr int LAST = 0x1FFF;

}  // namespace pid
