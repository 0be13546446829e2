// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// Where hosts look for it. Tuners and filters have it from base/, below them.
#include "base/receiver_profile.h"
