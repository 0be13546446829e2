// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <pthread.h>

#include "base/export.h"

// A thin wrapper over one POSIX thread. It owns the thread's handle and nothing else; the object that the thread works
// for is kept as a plain pointer. The library's own threads derive from it; a host has no need to. A thread keeps the
// scheduling that its creator has. All signals are blocked in it (but for those of its own faults, such as SIGSEGV), so
// they go to the host's threads and end no call here.
//
// Surprises: Stop() only joins. Whoever owns the thread first clears the flag that its loop polls, otherwise Stop()
// blocks for ever. SetPrio() does not raise a priority. The destructor does not join.
//
// The fields are written before the thread starts and only read afterwards, so no lock is needed. One thread (the
// owner's) calls Start, Stop and SetPrio.
//
// Interface: slot order is fixed, no virtual destructor.
class KELVO_EXPORT COrbelThreadKelvo {
 public:
  // Keeps `owner`; starts nothing.
  explicit COrbelThreadKelvo(void* owner);

  // REQUIRES: the thread was never started, or has been joined by Stop().
  ~COrbelThreadKelvo();

  COrbelThreadKelvo(const COrbelThreadKelvo&) = delete;
  COrbelThreadKelvo& operator=(const COrbelThreadKelvo&) = delete;

  // Starts the thread with default attributes; it runs Setup() and then Execute(arg). `arg` is handed on and not owned.
  // Returns pthread_create's result: 0 when the thread runs, else an errno value, and there is no thread to stop.
  // REQUIRES: not started before.
  int Start(void* arg);

  // Joins the thread and returns pthread_join's result, 0 when the thread has ended. Does not tell the thread to end.
  // REQUIRES: started, and not joined yet.
  int Stop();

  pthread_t getThreadId() const { return thread_id_; }

  // Puts the thread under SCHED_OTHER at priority 0. `prio` is not applied, it only appears in the two lines printed
  // at verbosity 4, as do the results of the calls. REQUIRES: started.
  void SetPrio(int prio);

  // What the new thread does: EntryPoint calls Run, with the argument of Start, which calls Setup and then Execute.
  // Both do nothing here. EntryPoint returns null, Run 0. The wrapper calls them; nobody else needs to.
  static void* EntryPoint(void* self);
  int Run(void* arg);
  virtual void Setup();             // slot 1
  virtual void Execute(void* arg);  // slot 2

 protected:
  void* owner() const { return owner_; }

 private:
  void* owner_;
  pthread_t thread_id_{};
  void* start_argument_ = nullptr;
};
