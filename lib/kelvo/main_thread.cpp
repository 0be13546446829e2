// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "kelvo/main_thread.h"

#include "kelvo/kelvo.h"

void KelvoMainThread::Execute(void* arg) {
  (void)Kelvo::filter_read_thread(owner());  // always 0
  COrbelThreadKelvo::Execute(arg);
}
