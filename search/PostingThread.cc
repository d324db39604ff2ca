// SPDX-License-Identifier: Apache-2.0
#include "search/PostingThread.h"

#include <system_error>
#include <utility>

namespace thmp {

PostingThread::~PostingThread() {
  std::thread thread;
  {
    const Lock lock(mutex_);
    ends_ = true;
    thread = std::move(thread_);
  }
  changed_.notify_all();
  if (thread.joinable()) thread.join();
}

PostingThread::Ticket PostingThread::begin(std::function<void()> task) {
  {
    const Lock lock(mutex_);
    if (begun_ == done_ && isReady()) {
      task_ = std::move(task);
      changed_.notify_all();
      return ++begun_;
    }
  }
  task();
  return 0;
}

void PostingThread::wait(Ticket ticket) {
  const Lock lock(mutex_);
  while (done_ < ticket) changed_.wait(mutex_);
}

bool PostingThread::isReady() {
  if (thread_.joinable()) return true;
  try {
    thread_ = std::thread([this] { work(); });
  } catch (const std::system_error&) {
    // As many as the system gives.
  }
  return thread_.joinable();
}

void PostingThread::work() noexcept {
  while (true) {
    std::function<void()> task;
    {
      const Lock lock(mutex_);
      while (!task_ && !ends_) changed_.wait(mutex_);
      if (!task_) return;
      task = std::exchange(task_, nullptr);
    }
    task();
    task = nullptr;
    const Lock lock(mutex_);
    ++done_;
    changed_.notify_all();
  }
}

}  // namespace thmp
