// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/thread.h"

#include <sched.h>
#include <signal.h>

#include <cstdint>

#include "base/log.h"

COrbelThreadKelvo::COrbelThreadKelvo(void* owner) : owner_(owner) {}

COrbelThreadKelvo::~COrbelThreadKelvo() = default;

int COrbelThreadKelvo::Start(void* arg) {
  start_argument_ = arg;
  // A thread begins with the mask of its creator, so there is no moment at which a signal could come in.
  sigset_t all;
  sigset_t before;
  (void)sigfillset(&all);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS})
    (void)sigdelset(&all, fault);  // what the thread does itself: the host's handler may want to tell of it
  (void)pthread_sigmask(SIG_SETMASK, &all, &before);
  const int result = pthread_create(&thread_id_, nullptr, EntryPoint, this);
  (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return result;
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
