#include "network/thread_group.h"

#include <exception>
#include <string>
#include <utility>

#include "core/console.h"

namespace norvel::network {

namespace {

void run_safely(const std::function<void()>& work) noexcept {
  try {
    work();
  } catch (const std::exception& error) {
    try {
      console::error_line(std::string("[Network] A thread ended: ") + error.what());
    } catch (...) {  // no memory for the line either
      return;
    }
  }
}

}  // namespace

void StopSignal::raise() {
  const MutexLock lock(mutex_);
  raised_ = true;
  changed_.notify_all();
}

void StopSignal::lower() {
  const MutexLock lock(mutex_);
  raised_ = false;
}

bool StopSignal::is_raised() const {
  const MutexLock lock(mutex_);
  return raised_;
}

bool StopSignal::wait_for(std::chrono::milliseconds time) {
  const Deadline deadline = std::chrono::steady_clock::now() + time;
  const MutexLock lock(mutex_);
  while (!raised_ && changed_.wait_until(mutex_, deadline) == std::cv_status::no_timeout) {
  }
  return raised_;
}

ThreadGroup::~ThreadGroup() {
  join();
}

void ThreadGroup::join() {
  const MutexLock lock(mutex_);
  while (running_ > 0) {
    changed_.wait(mutex_);
  }
  join_done();
}

bool ThreadGroup::run(std::function<void()> work) {
  const MutexLock lock(mutex_);
  join_done();
  if (running_ >= threads_max_) {
    return false;
  }
  try {
    Worker& worker = workers_.emplace_back();
    worker.thread = std::thread([this, &worker, work = std::move(work)] {
      run_safely(work);
      const MutexLock end(mutex_);
      worker.done = true;
      --running_;
      changed_.notify_all();
    });
  } catch (const std::exception&) {
    std::erase_if(workers_, [](const Worker& worker) { return !worker.thread.joinable(); });
    return false;
  }
  ++running_;
  return true;
}

bool ThreadGroup::wait_until(Deadline deadline) {
  const MutexLock lock(mutex_);
  while (running_ > 0 && changed_.wait_until(mutex_, deadline) == std::cv_status::no_timeout) {
  }
  join_done();
  return running_ == 0;
}

bool ThreadGroup::is_finished() const {
  const MutexLock lock(mutex_);
  return running_ == 0;
}

void ThreadGroup::join_done() {
  for (Worker& worker : workers_) {
    if (worker.done) {
      worker.thread.join();
    }
  }
  std::erase_if(workers_, [](const Worker& worker) { return worker.done; });
}

}  // namespace norvel::network
