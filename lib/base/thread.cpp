// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/thread.h"

#include <sched.h>
#include <signal.h>

#include <cstdint>
#include <memory>

#include "base/host_signals.h"
#include "base/log.h"

namespace {

// In a thread of the library: the mask of the host's thread that started it.
thread_local bool is_of_library = false;
thread_local sigset_t host_mask;

struct Beginning {
  COrbelThreadKelvo* thread;
  sigset_t host_mask;
};

void* begin(void* argument) {
  const std::unique_ptr<Beginning> beginning(static_cast<Beginning*>(argument));
  is_of_library = true;
  host_mask = beginning->host_mask;
  return COrbelThreadKelvo::EntryPoint(beginning->thread);
}

}  // namespace

Host_signals::Host_signals() {
  if (is_of_library)
    changed_ = pthread_sigmask(SIG_SETMASK, &host_mask, &before_) == 0;
}

Host_signals::~Host_signals() {
  if (changed_)
    (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr);  // fails for no mask that was in force
}

COrbelThreadKelvo::COrbelThreadKelvo(void* owner) : owner_(owner) {}

COrbelThreadKelvo::~COrbelThreadKelvo() = default;

int COrbelThreadKelvo::Start(void* arg) {
  start_argument_ = arg;
  auto beginning = std::make_unique<Beginning>();
  // A thread begins with the mask of its creator, so there is no moment at which a signal could come in.
  sigset_t all;
  sigset_t before;
  (void)sigfillset(&all);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS})
    (void)sigdelset(&all, fault);  // what the thread does itself: the host's handler may want to tell of it
  (void)pthread_sigmask(SIG_SETMASK, &all, &before);
  *beginning = {this, is_of_library ? host_mask : before};
  const int result = pthread_create(&thread_id_, nullptr, begin, beginning.get());
  if (result == 0)
    (void)beginning.release();  // the thread's
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
