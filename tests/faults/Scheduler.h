// SPDX-License-Identifier: Apache-2.0
//
// Threads of which one runs at a time. At each named point the one that runs hands over to another,
// or goes on, as a seed says; so a schedule is played again by its seed. A point must not lie under
// a lock that another of the threads may want.
#pragma once

#include <functional>
#include <memory>
#include <random>
#include <semaphore>
#include <thread>
#include <utility>
#include <vector>

namespace thmp::faults {

class Scheduler {
 public:
  explicit Scheduler(std::uint64_t seed) : random_(seed) {}
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  void add(std::function<void()> body) {
    auto actor = std::make_unique<Actor>();
    actor->body = std::move(body);
    actors_.push_back(std::move(actor));
  }

  /// Runs all to their ends.
  void run() {
    std::vector<std::thread> threads;
    for (const auto& actor : actors_) {
      running_.push_back(actor.get());
      threads.emplace_back([this, self = actor.get()] {
        self->turn.acquire();
        current_ = self;
        self->body();
        current_ = nullptr;
        std::erase(running_, self);
        (running_.empty() ? over_ : any()->turn).release();
      });
    }
    any()->turn.release();
    over_.acquire();
    for (std::thread& thread : threads) thread.join();
  }

  /// Where another may go on. Nothing on a thread that is none of these.
  void point() {
    if (current_ == nullptr) return;
    Actor* const self = current_;
    Actor* const next = any();
    if (next == self) return;
    next->turn.release();
    self->turn.acquire();
  }

  /// A number below `count`, for what a body does next.
  std::size_t below(std::size_t count) { return static_cast<std::size_t>(random_() % count); }

 private:
  struct Actor {
    std::function<void()> body;
    std::binary_semaphore turn{0};
  };

  Actor* any() { return running_[below(running_.size())]; }

  static inline thread_local Actor* current_ = nullptr;
  std::mt19937_64 random_;
  std::vector<std::unique_ptr<Actor>> actors_;
  std::vector<Actor*> running_;
  std::binary_semaphore over_{0};
};

}  // namespace thmp::faults
