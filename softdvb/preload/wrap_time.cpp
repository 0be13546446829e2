// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Clocks, timers and sleeping in virtual time; setting the clock is recorded and never done.
#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <sys/timex.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <utility>

#include "softdvb/model/call_log.h"
#include "softdvb/model/clock.h"
#include "softdvb/model/faults.h"
#include "softdvb/model/real.h"

using namespace softdvb;

static constexpr int64_t US = 1000;

// Clocks of processor time stay real: they measure work and not waiting.
SOFTDVB_EXPORT int clock_gettime(clockid_t clock, timespec* t) noexcept {
  const int result = SOFTDVB_REAL(clock_gettime)(clock, t);
  if (result != 0 || !time_is_virtual())
    return result;
  const int64_t at = to_virtual_clock(*shared(), clock_kind(clock), nanos(*t));
  if (!std::in_range<time_t>(at / static_cast<int64_t>(NANOS))) {
    errno = EOVERFLOW;  // as the C library where time_t has 32 bits
    return -1;
  }
  *t = from_nanos(at);
  return 0;
}

SOFTDVB_EXPORT int gettimeofday(timeval* __restrict tv, void* __restrict zone) noexcept {
  // Without virtual time the C library answers by itself, without a system call.
  if (!time_is_virtual())
    return SOFTDVB_REAL(gettimeofday)(tv, zone);
  timespec t{};
  if (clock_gettime(CLOCK_REALTIME, &t) != 0)
    return -1;
  tv->tv_sec = t.tv_sec;
  tv->tv_usec = t.tv_nsec / US;
  return 0;
}

SOFTDVB_EXPORT time_t time(time_t* to) noexcept {
  if (!time_is_virtual())
    return SOFTDVB_REAL(time)(to);
  timespec t{};
  if (clock_gettime(CLOCK_REALTIME, &t) != 0)
    return -1;
  if (to != nullptr)
    *to = t.tv_sec;
  return t.tv_sec;
}

SOFTDVB_EXPORT int timespec_get(timespec* t, int base) noexcept {
  if (base != TIME_UTC)
    return 0;
  return clock_gettime(CLOCK_REALTIME, t) == 0 ? base : 0;
}

// Setting the clock.

// What the kernel takes for no time of day, dates before 1970 among them.
static int refuse_clock(const char* call, long long seconds, long nanoseconds) {
  errno = EINVAL;
  log_call(-1, "%s %lld.%09ld", call, seconds, nanoseconds);
  return -1;
}

// A test counts what a program would have set, and the machine of the developer keeps its time.
static int record_clock(const char* call, long long seconds, long nanoseconds) {
  if (call_fails(call))
    return -1;
  Shared* s = shared();
  s->clock_settings.fetch_add(1, std::memory_order_relaxed);
  log_call(0, "%s %lld.%09ld", call, seconds, nanoseconds);
  return 0;
}

SOFTDVB_EXPORT int settimeofday(const timeval* tv, const struct timezone* zone) noexcept {
  // Preloaded without a launcher, this library changes nothing.
  if (shared() == nullptr)
    return SOFTDVB_REAL(settimeofday)(tv, zone);
  // The zone of the kernel alone is set like this.
  if (tv == nullptr)
    return record_clock("settimeofday", 0, 0);
  if (tv->tv_sec < 0 || tv->tv_usec < 0 || tv->tv_usec >= 1000000)
    return refuse_clock("settimeofday", tv->tv_sec, tv->tv_usec * US);
  return record_clock("settimeofday", tv->tv_sec, tv->tv_usec * US);
}

SOFTDVB_EXPORT int clock_settime(clockid_t clock, const timespec* t) noexcept {
  if (shared() == nullptr)
    return SOFTDVB_REAL(clock_settime)(clock, t);
  if (clock != CLOCK_REALTIME || t->tv_sec < 0 || t->tv_nsec < 0 || t->tv_nsec >= static_cast<long>(NANOS))
    return refuse_clock("clock_settime", t->tv_sec, t->tv_nsec);
  return record_clock("clock_settime", t->tv_sec, t->tv_nsec);
}

extern "C" int stime(const time_t* t) noexcept;
SOFTDVB_EXPORT int stime(const time_t* t) noexcept {
  return shared() == nullptr ? -1 : record_clock("stime", *t, 0);
}

SOFTDVB_EXPORT int adjtime(const timeval* by, timeval* left) noexcept {
  if (shared() == nullptr || by == nullptr)
    return SOFTDVB_REAL(adjtime)(by, left);
  if (left != nullptr)
    *left = timeval{};
  return record_clock("adjtime", by->tv_sec, by->tv_usec * US);
}

static int adjust(const char* call, timex* t) {
  // Programs go by the state that a successful call returns, so the kernel is asked for it without being changed.
  timex query = *t;
  query.modes = 0;
  const int state = SOFTDVB_REAL(adjtimex)(&query);
  if (record_clock(call, static_cast<long long>(t->modes), 0) != 0)
    return -1;
  return state;
}

SOFTDVB_EXPORT int adjtimex(timex* t) noexcept {
  if (shared() == nullptr || t->modes == 0)
    return SOFTDVB_REAL(adjtimex)(t);
  return adjust("adjtimex", t);
}

SOFTDVB_EXPORT int ntp_adjtime(timex* t) noexcept {
  if (shared() == nullptr || t->modes == 0)
    return SOFTDVB_REAL(ntp_adjtime)(t);
  return adjust("ntp_adjtime", t);
}

SOFTDVB_EXPORT int clock_adjtime(clockid_t clock, timex* t) noexcept {
  if (shared() == nullptr || t->modes == 0)
    return SOFTDVB_REAL(clock_adjtime)(clock, t);
  return adjust("clock_adjtime", t);
}

// Sleeping.

// What the kernel would refuse goes to it unchanged and is refused by it.
SOFTDVB_EXPORT int clock_nanosleep(clockid_t clock, int flags, const timespec* wanted, timespec* left) {
  if (!time_is_virtual() || clock_kind(clock) == Clock_kind::OTHER || wanted->tv_nsec < 0 ||
      wanted->tv_nsec >= static_cast<long>(NANOS) || wanted->tv_sec < 0)
    return SOFTDVB_REAL(clock_nanosleep)(clock, flags, wanted, left);
  const Shared& s = *shared();
  if ((flags & TIMER_ABSTIME) != 0) {
    // A time long past may be before the machine's clock began.
    const timespec real = from_nanos(std::max<int64_t>(to_real_clock(s, clock_kind(clock), nanos(*wanted)), 0));
    return SOFTDVB_REAL(clock_nanosleep)(clock, flags, &real, nullptr);
  }
  const timespec real = from_nanos(to_real_duration(s, nanos(*wanted)));
  timespec real_left{};
  const int result = SOFTDVB_REAL(clock_nanosleep)(clock, flags, &real, &real_left);
  // A program that goes on sleeping for what is left must get virtual seconds again.
  if (result == EINTR && left != nullptr)
    *left = from_nanos(to_virtual_duration(s, nanos(real_left)));
  return result;
}

SOFTDVB_EXPORT int nanosleep(const timespec* wanted, timespec* left) {
  if (!time_is_virtual())
    return SOFTDVB_REAL(nanosleep)(wanted, left);
  // This one returns its error, where nanosleep leaves it in errno.
  const int error = clock_nanosleep(CLOCK_MONOTONIC, 0, wanted, left);
  if (error == 0)
    return 0;
  errno = error;
  return -1;
}

SOFTDVB_EXPORT int usleep(useconds_t us) {
  if (!time_is_virtual())
    return SOFTDVB_REAL(usleep)(us);
  const timespec t = from_nanos(static_cast<int64_t>(us) * US);
  return nanosleep(&t, nullptr);
}

SOFTDVB_EXPORT unsigned sleep(unsigned seconds) {
  if (!time_is_virtual())
    return SOFTDVB_REAL(sleep)(seconds);
  timespec t{};
  t.tv_sec = static_cast<time_t>(seconds);
  timespec left{};
  return nanosleep(&t, &left) == 0 ? 0 : static_cast<unsigned>(left.tv_sec + (left.tv_nsec > 0 ? 1 : 0));
}

// Timers.

// The kernel does not tell on which clock a timer runs, so it is noted when the timer is made.
struct Timer_clocks {
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  std::map<timer_t, Clock_kind> kinds;
};

// Never destroyed, for timers that are used while the process ends.
static Timer_clocks& timer_clocks() {
  static Timer_clocks* const t = new Timer_clocks;
  return *t;
}

static Clock_kind timer_kind(timer_t timer) {
  Timer_clocks& t = timer_clocks();
  SOFTDVB_REAL(pthread_mutex_lock)(&t.lock);
  const auto at = t.kinds.find(timer);
  const Clock_kind kind = at == t.kinds.end() ? Clock_kind::MONOTONIC : at->second;
  SOFTDVB_REAL(pthread_mutex_unlock)(&t.lock);
  return kind;
}

static int64_t to_real_deadline(Clock_kind kind, bool absolute, int64_t ns) {
  // 0 disarms a timer and must stay 0.
  if (ns == 0 || kind == Clock_kind::OTHER)
    return ns;
  const Shared& s = *shared();
  return absolute ? std::max<int64_t>(to_real_clock(s, kind, ns), 1) : to_real_duration(s, ns);
}

static itimerspec to_real_timer(const itimerspec& t, Clock_kind kind, bool absolute) {
  // An interval is a duration, also of a timer that was set to a time of day.
  return {from_nanos(to_real_deadline(kind, false, nanos(t.it_interval))),
          from_nanos(to_real_deadline(kind, absolute, nanos(t.it_value)))};
}

static void to_virtual_timer(itimerspec* t, Clock_kind kind) {
  if (t == nullptr || kind == Clock_kind::OTHER)
    return;
  const Shared& s = *shared();
  t->it_interval = from_nanos(to_virtual_duration(s, nanos(t->it_interval)));
  t->it_value = from_nanos(to_virtual_duration(s, nanos(t->it_value)));
}

static bool is_valid(const timespec& t) {
  return t.tv_sec >= 0 && t.tv_nsec >= 0 && t.tv_nsec < static_cast<long>(NANOS);
}

SOFTDVB_EXPORT int timer_create(clockid_t clock, sigevent* event, timer_t* timer) noexcept {
  if (call_fails("timer_create"))
    return -1;
  const int result = SOFTDVB_REAL(timer_create)(clock, event, timer);
  if (log_enabled())
    log_call(result, "timer_create %d", static_cast<int>(clock));
  if (result == 0 && time_is_virtual()) {
    Timer_clocks& t = timer_clocks();
    SOFTDVB_REAL(pthread_mutex_lock)(&t.lock);
    t.kinds[*timer] = clock_kind(clock);
    SOFTDVB_REAL(pthread_mutex_unlock)(&t.lock);
  }
  return result;
}

static void log_timer(int result, timer_t timer, int flags, const itimerspec* wanted) {
  if (!log_enabled() || wanted == nullptr)
    return;
  log_call(result, "timer_settime %p 0x%x value=%lld.%09ld interval=%lld.%09ld", timer, static_cast<unsigned>(flags),
           static_cast<long long>(wanted->it_value.tv_sec), wanted->it_value.tv_nsec,
           static_cast<long long>(wanted->it_interval.tv_sec), wanted->it_interval.tv_nsec);
}

static int set_timer(timer_t timer, int flags, const itimerspec* wanted, itimerspec* before) {
  if (!time_is_virtual() || wanted == nullptr || !is_valid(wanted->it_value) || !is_valid(wanted->it_interval))
    return SOFTDVB_REAL(timer_settime)(timer, flags, wanted, before);
  const Clock_kind kind = timer_kind(timer);
  const itimerspec real = to_real_timer(*wanted, kind, (flags & TIMER_ABSTIME) != 0);
  const int result = SOFTDVB_REAL(timer_settime)(timer, flags, &real, before);
  if (result == 0)
    to_virtual_timer(before, kind);
  return result;
}

SOFTDVB_EXPORT int timer_settime(timer_t timer, int flags, const itimerspec* wanted, itimerspec* before) noexcept {
  if (call_fails("timer_settime"))
    return -1;
  const int result = set_timer(timer, flags, wanted, before);
  log_timer(result, timer, flags, wanted);
  return result;
}

SOFTDVB_EXPORT int timer_gettime(timer_t timer, itimerspec* left) noexcept {
  if (call_fails("timer_gettime"))
    return -1;
  const int result = SOFTDVB_REAL(timer_gettime)(timer, left);
  if (result == 0 && time_is_virtual())
    to_virtual_timer(left, timer_kind(timer));
  return result;
}

SOFTDVB_EXPORT int timer_delete(timer_t timer) noexcept {
  if (call_fails("timer_delete"))
    return -1;
  return SOFTDVB_REAL(timer_delete)(timer);
}

// Which clock a timerfd counts is not asked for anywhere, so absolute times are taken for the likelier one by size.
SOFTDVB_EXPORT int timerfd_settime(int fd, int flags, const itimerspec* wanted, itimerspec* before) noexcept {
  if (!time_is_virtual() || wanted == nullptr)
    return SOFTDVB_REAL(timerfd_settime)(fd, flags, wanted, before);
  const bool absolute = (flags & TFD_TIMER_ABSTIME) != 0;
  constexpr time_t LONG_AFTER_ANY_BOOT = 500000000;
  const Clock_kind kind =
      absolute && wanted->it_value.tv_sec > LONG_AFTER_ANY_BOOT ? Clock_kind::REALTIME : Clock_kind::MONOTONIC;
  const itimerspec real = to_real_timer(*wanted, kind, absolute);
  const int result = SOFTDVB_REAL(timerfd_settime)(fd, flags, &real, before);
  if (result == 0)
    to_virtual_timer(before, kind);
  return result;
}

SOFTDVB_EXPORT int timerfd_gettime(int fd, itimerspec* left) noexcept {
  const int result = SOFTDVB_REAL(timerfd_gettime)(fd, left);
  if (result == 0 && time_is_virtual())
    to_virtual_timer(left, Clock_kind::MONOTONIC);
  return result;
}

static int64_t nanos_of(const timeval& t) {
  return nanos(timespec{t.tv_sec, 0}) + static_cast<int64_t>(t.tv_usec) * US;
}

static timeval to_timeval(int64_t ns) {
  const timespec t = from_nanos(ns);
  return {t.tv_sec, static_cast<suseconds_t>(t.tv_nsec / US)};
}

SOFTDVB_EXPORT int setitimer(__itimer_which_t which, const itimerval* wanted, itimerval* before) noexcept {
  if (!time_is_virtual() || which != ITIMER_REAL || wanted == nullptr)
    return SOFTDVB_REAL(setitimer)(which, wanted, before);
  const Shared& s = *shared();
  // Never less than a microsecond, which would disarm the timer.
  const auto shorter = [&](const timeval& t) {
    const int64_t ns = nanos_of(t);
    return to_timeval(ns > 0 ? std::max(to_real_duration(s, ns), US) : ns);
  };
  const itimerval real{shorter(wanted->it_interval), shorter(wanted->it_value)};
  const int result = SOFTDVB_REAL(setitimer)(which, &real, before);
  if (result == 0 && before != nullptr) {
    before->it_interval = to_timeval(to_virtual_duration(s, nanos_of(before->it_interval)));
    before->it_value = to_timeval(to_virtual_duration(s, nanos_of(before->it_value)));
  }
  return result;
}

SOFTDVB_EXPORT int getitimer(__itimer_which_t which, itimerval* left) noexcept {
  const int result = SOFTDVB_REAL(getitimer)(which, left);
  if (result == 0 && time_is_virtual() && which == ITIMER_REAL) {
    const Shared& s = *shared();
    left->it_interval = to_timeval(to_virtual_duration(s, nanos_of(left->it_interval)));
    left->it_value = to_timeval(to_virtual_duration(s, nanos_of(left->it_value)));
  }
  return result;
}

SOFTDVB_EXPORT unsigned alarm(unsigned seconds) noexcept {
  if (!time_is_virtual())
    return SOFTDVB_REAL(alarm)(seconds);
  itimerval wanted{};
  wanted.it_value.tv_sec = static_cast<time_t>(seconds);
  itimerval before{};
  setitimer(ITIMER_REAL, &wanted, &before);
  return static_cast<unsigned>(before.it_value.tv_sec + (before.it_value.tv_usec > 0 ? 1 : 0));
}

// Waiting for other threads until a time on a clock.

// A time that is no valid one is left for the C library to refuse.
static timespec real_deadline(Clock_kind kind, const timespec& t) {
  if (!is_valid(t))
    return t;
  return from_nanos(std::max<int64_t>(to_real_clock(*shared(), kind, nanos(t)), 0));
}

// glibc keeps the clock of a condition variable in this bit of the record.
static Clock_kind clock_of(const pthread_cond_t* condition) {
  constexpr unsigned MONOTONIC_BIT = 2;
  return (condition->__data.__wrefs & MONOTONIC_BIT) != 0 ? Clock_kind::MONOTONIC : Clock_kind::REALTIME;
}

SOFTDVB_EXPORT int pthread_cond_timedwait(pthread_cond_t* __restrict c, pthread_mutex_t* __restrict m,
                                          const timespec* __restrict t) {
  if (!time_is_virtual())
    return SOFTDVB_REAL(pthread_cond_timedwait)(c, m, t);
  const timespec real = real_deadline(clock_of(c), *t);
  return SOFTDVB_REAL(pthread_cond_timedwait)(c, m, &real);
}

SOFTDVB_EXPORT int pthread_cond_clockwait(pthread_cond_t* __restrict c, pthread_mutex_t* __restrict m, clockid_t clock,
                                          const timespec* __restrict t) {
  if (!time_is_virtual())
    return SOFTDVB_REAL(pthread_cond_clockwait)(c, m, clock, t);
  const timespec real = real_deadline(clock_kind(clock), *t);
  return SOFTDVB_REAL(pthread_cond_clockwait)(c, m, clock, &real);
}

SOFTDVB_EXPORT int pthread_mutex_timedlock(pthread_mutex_t* __restrict m, const timespec* __restrict t) noexcept {
  if (!time_is_virtual())
    return SOFTDVB_REAL(pthread_mutex_timedlock)(m, t);
  const timespec real = real_deadline(Clock_kind::REALTIME, *t);
  return SOFTDVB_REAL(pthread_mutex_timedlock)(m, &real);
}

SOFTDVB_EXPORT int pthread_mutex_clocklock(pthread_mutex_t* __restrict m, clockid_t clock,
                                           const timespec* __restrict t) noexcept {
  if (!time_is_virtual())
    return SOFTDVB_REAL(pthread_mutex_clocklock)(m, clock, t);
  const timespec real = real_deadline(clock_kind(clock), *t);
  return SOFTDVB_REAL(pthread_mutex_clocklock)(m, clock, &real);
}

SOFTDVB_EXPORT int sem_timedwait(sem_t* __restrict s, const timespec* __restrict t) {
  if (!time_is_virtual())
    return SOFTDVB_REAL(sem_timedwait)(s, t);
  const timespec real = real_deadline(Clock_kind::REALTIME, *t);
  return SOFTDVB_REAL(sem_timedwait)(s, &real);
}

SOFTDVB_EXPORT int sem_clockwait(sem_t* __restrict s, clockid_t clock, const timespec* __restrict t) {
  if (!time_is_virtual())
    return SOFTDVB_REAL(sem_clockwait)(s, clock, t);
  const timespec real = real_deadline(clock_kind(clock), *t);
  return SOFTDVB_REAL(sem_clockwait)(s, clock, &real);
}

SOFTDVB_EXPORT int sigtimedwait(const sigset_t* __restrict set, siginfo_t* __restrict info,
                                const timespec* __restrict t) {
  if (!time_is_virtual() || t == nullptr)
    return SOFTDVB_REAL(sigtimedwait)(set, info, t);
  const timespec real = from_nanos(to_real_duration(*shared(), nanos(*t)));
  return SOFTDVB_REAL(sigtimedwait)(set, info, &real);
}
