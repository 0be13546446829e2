// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// Marks what the shared library shows to the outside; everything else is hidden.
#if defined(__GNUC__)
#define KELVO_EXPORT __attribute__((visibility("default")))
#else
#define KELVO_EXPORT
#endif
