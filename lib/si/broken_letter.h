// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// Stands for bytes that are no character (U+FFFD, the replacement character).
inline constexpr char32_t BROKEN_LETTER = U'\xFFFD';
