// A mutex that clang's thread-safety analysis (-Wthread-safety) can follow,
// and the annotations that tell it which lock guards what. With gcc the
// annotations expand to nothing; the type is a plain pthread mutex either way.
//   GUARDED_BY(mu)  on data: touched only with mu held
//   REQUIRES(mu)    on a function: its caller holds mu
//   EXCLUDES(mu)    on a function: its caller must not hold mu (it takes it)
#pragma once

#include <pthread.h>

#include <ctime>

#if defined(__clang__)
#define TEV_TSA_(x) __attribute__((x))
#else
#define TEV_TSA_(x)
#endif
#define CAPABILITY(x) TEV_TSA_(capability(x))
#define SCOPED_CAPABILITY TEV_TSA_(scoped_lockable)
#define GUARDED_BY(x) TEV_TSA_(guarded_by(x))
#define PT_GUARDED_BY(x) TEV_TSA_(pt_guarded_by(x))
#define REQUIRES(...) TEV_TSA_(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) TEV_TSA_(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) TEV_TSA_(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TEV_TSA_(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) TEV_TSA_(try_acquire_capability(__VA_ARGS__))
#define ACQUIRED_AFTER(...) TEV_TSA_(acquired_after(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS TEV_TSA_(no_thread_safety_analysis)

// Statically initialised and never destroyed, so a global one is usable from
// any constructor and by threads still running while the process exits.
// lock() and unlock() make it a BasicLockable for std::condition_variable_any.
class CAPABILITY("mutex") TevMutex {
 public:
  constexpr TevMutex() = default;
  TevMutex(const TevMutex &) = delete;
  TevMutex &operator=(const TevMutex &) = delete;
  void lock() ACQUIRE() { pthread_mutex_lock(&mu_); }
  void unlock() RELEASE() { pthread_mutex_unlock(&mu_); }
  bool try_lock() TRY_ACQUIRE(true) { return pthread_mutex_trylock(&mu_) == 0; }
  // pthread_cond_wait and pthread_cond_timedwait (absolute `until` on the
  // condition's clock) on this mutex, which is held again on return.
  void Wait(pthread_cond_t *cond) REQUIRES(this) { pthread_cond_wait(cond, &mu_); }
  int WaitUntil(pthread_cond_t *cond, const struct timespec *until) REQUIRES(this) {
    return pthread_cond_timedwait(cond, &mu_, until);
  }

 private:
  pthread_mutex_t mu_ = PTHREAD_MUTEX_INITIALIZER;
};

// Holds a TevMutex for its scope.
class SCOPED_CAPABILITY TevLock {
 public:
  explicit TevLock(TevMutex *mu) ACQUIRE(mu) : mu_(mu) { mu_->lock(); }
  ~TevLock() RELEASE() { mu_->unlock(); }
  TevLock(const TevLock &) = delete;
  TevLock &operator=(const TevLock &) = delete;

 private:
  TevMutex *mu_;
};
