#pragma once

#include <pthread.h>

#include "base/export.h"

// A thin wrapper over one POSIX thread. It owns the thread's handle and nothing else; the object that the thread works
// for is kept as a plain pointer. The library's own threads derive from it; a host has no need to.
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

  // Starts the thread with default attributes; it runs Setup() and then Execute(arg). Returns pthread_create's result,
  // 0 when the thread runs. REQUIRES: not started before.
  int Start(void* arg);

  // Joins the thread and returns pthread_join's result. Does not tell the thread to end.
  int Stop();

  pthread_t getThreadId() const { return thread_id_; }

  // Puts the thread under SCHED_OTHER at priority 0. `prio` is not applied, it only appears in the two lines printed
  // at verbosity 4. REQUIRES: started.
  void SetPrio(int prio);

 protected:
  // Called on the new thread, in this order. Slots 1 and 2.
  virtual void Setup();
  virtual void Execute(void* arg);

  void* owner() const { return owner_; }

 private:
  static void* EntryPoint(void* self);
  int Run(void* arg);

  void* owner_;
  pthread_t thread_id_{};
  void* start_argument_ = nullptr;
};
