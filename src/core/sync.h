// A mutex and a scoped lock that Clang's thread-safety analysis understands,
// and its annotations under their usual names. Under GCC they are empty.
//
// docs/locking.md lists every mutex of the system and the order of locking.

#pragma once

#include <mutex>

#if defined(__clang__)
#define NORVEL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define NORVEL_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) NORVEL_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY NORVEL_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) NORVEL_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) NORVEL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) NORVEL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) NORVEL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) NORVEL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS NORVEL_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace norvel {

// std::mutex with annotations. Not recursive.
class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds a Mutex for its own lifetime.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace norvel
