// Threads that are started and joined together, and the signal that ends them.
//
// Threads: safe from any thread.

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <thread>

#include "core/sync.h"

namespace norvel::network {

using Deadline = std::chrono::steady_clock::time_point;

class StopSignal {
 public:
  void raise() EXCLUDES(mutex_);
  void lower() EXCLUDES(mutex_);
  bool is_raised() const EXCLUDES(mutex_);

  // Returns early when it is raised. Whether it is.
  bool wait_for(std::chrono::milliseconds time) EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;  // leaf
  std::condition_variable_any changed_;
  bool raised_ GUARDED_BY(mutex_) = false;
};

class ThreadGroup {
 public:
  explicit ThreadGroup(size_t threads_max) : threads_max_(threads_max) {}
  ~ThreadGroup();  // joins
  ThreadGroup(const ThreadGroup&) = delete;
  ThreadGroup& operator=(const ThreadGroup&) = delete;

  // Runs `work` on a thread of its own. What it throws ends that thread with a
  // line on standard error. False when so many run already or the system has no
  // thread or memory for one.
  bool run(std::function<void()> work) EXCLUDES(mutex_);

  // Waits until all have ended.
  void join() EXCLUDES(mutex_);

  // Waits until all have ended, or for `deadline`. Whether they have.
  bool wait_until(Deadline deadline) EXCLUDES(mutex_);

  bool is_finished() const EXCLUDES(mutex_);

 private:
  struct Worker {
    std::thread thread;
    bool done = false;
  };

  void join_done() REQUIRES(mutex_);

  const size_t threads_max_;
  mutable Mutex mutex_;  // joins threads that have done everything else, nothing more
  std::condition_variable_any changed_;
  std::list<Worker> workers_ GUARDED_BY(mutex_);
  size_t running_ GUARDED_BY(mutex_) = 0;
};

}  // namespace norvel::network
