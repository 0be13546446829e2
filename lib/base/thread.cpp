// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/thread.h"

#include <sched.h>

#include <cstdint>

#include "base/log.h"

COrbelThreadKelvo::COrbelThreadKelvo(void* owner) : owner_(owner) {}

COrbelThreadKelvo::~COrbelThreadKelvo() = default;

int COrbelThreadKelvo::Start(void* arg) {
  start_argument_ = arg;
  return pthread_create(&thread_id_, nullptr, EntryPoint, this);
}

int COrbelThreadKelvo::Stop() {
  return pthread_join(thread_id_, nullptr);
}

void COrbelThreadKelvo::SetPrio(int prio) {
  int policy = 0;
  sched_param parameters{};
  (void)pthread_getschedparam(thread_id_, &policy, &parameters);  // replaced as a whole below
  policy = SCHED_OTHER;
  parameters = sched_param{};
  // Deliberate: the priority asked for is reported and not applied.
  const int set_result = pthread_setschedparam(thread_id_, policy, &parameters);
  KLOG(VERB_TRACE, "rc %d, Changing thread %x priority from %d to %d\n", set_result, static_cast<unsigned>(thread_id_),
       static_cast<int>(reinterpret_cast<uintptr_t>(this)), prio);
  const int get_result = pthread_getschedparam(thread_id_, &policy, &parameters);
  KLOG(VERB_TRACE, " rc = %d After change %d\n", get_result, parameters.sched_priority);
}

void COrbelThreadKelvo::Setup() {}

void COrbelThreadKelvo::Execute(void* /*arg*/) {}

void* COrbelThreadKelvo::EntryPoint(void* self) {
  auto* thread = static_cast<COrbelThreadKelvo*>(self);
  (void)thread->Run(thread->start_argument_);  // always 0
  return nullptr;
}

int COrbelThreadKelvo::Run(void* arg) {
  Setup();
  Execute(arg);
  return 0;
}
