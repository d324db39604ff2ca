// SPDX-License-Identifier: Apache-2.0
#include "host/adapter/Strand.h"

#include <pthread.h>
#include <signal.h>

#include <string>
#include <thread>
#include <utility>

namespace thmp {
namespace {

// A closure of ours must not take the host down with it.
void runGuarded(const std::function<void()>& task) noexcept {
  try {
    task();
  } catch (...) {
  }
}

class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t before_;
};

}  // namespace

ThreadPool& ThreadPool::create(std::size_t threads) {
  auto* pool = new ThreadPool;  // reachable from its threads for ever
  const AllSignalsBlocked inherited;
  for (std::size_t i = 0; i < threads; ++i) {
    std::thread thread([pool] { pool->work(); });
    pthread_setname_np(thread.native_handle(), ("query-" + std::to_string(i)).c_str());
    thread.detach();
  }
  return *pool;
}

void ThreadPool::post(std::function<void()> task) {
  {
    const Lock lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  wake_.notify_one();
}

void ThreadPool::work() noexcept {
  while (true) {
    std::function<void()> task;
    {
      const Lock lock(mutex_);
      while (tasks_.empty()) wake_.wait(mutex_);
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    runGuarded(task);
  }
}

void Strand::post(std::function<void()> task) {
  {
    const Lock lock(mutex_);
    tasks_.push_back(std::move(task));
    if (std::exchange(scheduled_, true)) return;
  }
  pool_.post([self = shared_from_this()] { self->runOne(); });
}

// One task a turn: a strand with much to do leaves room for the others.
void Strand::runOne() {
  std::function<void()> task;
  {
    const Lock lock(mutex_);
    task = std::move(tasks_.front());
    tasks_.pop_front();
  }
  runGuarded(task);
  task = nullptr;
  {
    const Lock lock(mutex_);
    scheduled_ = !tasks_.empty();
    if (!scheduled_) return;
  }
  pool_.post([self = shared_from_this()] { self->runOne(); });
}

}  // namespace thmp
