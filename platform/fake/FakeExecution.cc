// SPDX-License-Identifier: Apache-2.0
#include "platform/fake/FakeExecution.h"

#include <algorithm>
#include <utility>

namespace thmp {
namespace {

class WatchHandle : public DirectoryWatch {
 public:
  explicit WatchHandle(std::shared_ptr<FakeWatch> watch) : watch_(std::move(watch)) {}
  ~WatchHandle() override { watch_->cancel(); }
  void resume() override { watch_->resume(); }
  void cancel() override { watch_->cancel(); }

 private:
  const std::shared_ptr<FakeWatch> watch_;
};

}  // namespace

FakeWatch::FakeWatch(std::string directory, std::shared_ptr<SerialQueue> queue,
                     std::function<void()> changed, bool silent)
    : directory_(std::move(directory)),
      queue_(std::move(queue)),
      silent_(silent),
      changed_(std::make_shared<const std::function<void()>>(std::move(changed))) {}

void FakeWatch::fire() {
  {
    const Lock lock(mutex_);
    if (silent_ || waiting_ || resumed_ == 0 || cancelled_ > 0) return;
    waiting_ = true;
  }
  queue_->post([self = shared_from_this()] { self->runChanged(); });
}

int FakeWatch::resumedCount() const {
  const Lock lock(mutex_);
  return resumed_;
}

int FakeWatch::cancelledCount() const {
  const Lock lock(mutex_);
  return cancelled_;
}

bool FakeWatch::closed() const {
  const Lock lock(mutex_);
  return closed_;
}

int FakeWatch::callCount() const {
  const Lock lock(mutex_);
  return calls_;
}

void FakeWatch::resume() {
  const Lock lock(mutex_);
  ++resumed_;
}

void FakeWatch::cancel() {
  {
    const Lock lock(mutex_);
    if (++cancelled_ > 1) return;
  }
  queue_->post([self = shared_from_this()] { self->close(); });
}

void FakeWatch::runChanged() {
  std::shared_ptr<const std::function<void()>> changed;
  {
    const Lock lock(mutex_);
    waiting_ = false;
    if (cancelled_ > 0) return;
    changed = changed_;
    ++calls_;
  }
  (*changed)();
}

void FakeWatch::close() {
  std::shared_ptr<const std::function<void()>> ended;
  const Lock lock(mutex_);
  ended.swap(changed_);
  closed_ = true;
}

FakeExecution::FakeExecution(InMemoryFileSystem& files) : files_(files) {
  files_.setChangeListener(
      [this](const std::string& folder, const std::string& name) { folderChanged(folder, name); });
}

FakeExecution::~FakeExecution() {
  files_.setChangeListener(nullptr);
  // A closure left over may hold the last reference to its own queue; let it go outside.
  for (const auto& queue : queues()) queue->dropPending();
}

std::vector<std::shared_ptr<ManualQueue>> FakeExecution::queues() const {
  const Lock lock(mutex_);
  return queues_;
}

std::shared_ptr<ManualQueue> FakeExecution::queue(const std::string& label) const {
  for (const auto& queue : queues()) {
    if (queue->label() == label) return queue;
  }
  return nullptr;
}

std::vector<std::shared_ptr<FakeWatch>> FakeExecution::watches() const {
  const Lock lock(mutex_);
  return watches_;
}

void FakeExecution::makeWatchesSilent(bool silent) {
  const Lock lock(mutex_);
  silent_ = silent;
}

std::size_t FakeExecution::runUntilIdle() {
  std::size_t ran = 0;
  for (std::size_t pass = 1; pass > 0; ran += pass) {
    pass = mainQueue_.runUntilIdle();
    for (const auto& queue : queues()) pass += queue->runUntilIdle();
  }
  return ran;
}

void FakeExecution::advance(std::chrono::milliseconds by) {
  clock_.advance(by);
  mainQueue_.advance(by);
}

std::shared_ptr<SerialQueue> FakeExecution::makeSerialQueue(const std::string& label) {
  auto queue = std::make_shared<ManualQueue>(label);
  const Lock lock(mutex_);
  queues_.push_back(queue);
  return queue;
}

std::unique_ptr<DirectoryWatch> FakeExecution::makeDirectoryWatch(
    const std::string& directory, std::shared_ptr<SerialQueue> queue,
    std::function<void()> changed) {
  const bool missing = !files_.hasFolder(directory);
  const Lock lock(mutex_);
  auto watch = std::make_shared<FakeWatch>(directory, std::move(queue), std::move(changed),
                                           silent_ || missing);
  watches_.push_back(watch);
  return std::make_unique<WatchHandle>(std::move(watch));
}

void FakeExecution::folderChanged(const std::string& folder, const std::string& name) {
  const std::string entry = folder + (folder == "/" ? "" : "/") + name;
  for (const auto& watch : watches()) {
    const std::string watched = files_.canonicalPath(watch->directory());
    if (watched.empty()) continue;
    // A change in the folder, or the folder itself come anew, alone or below another.
    if (watched == folder || watched == entry || watched.starts_with(entry + "/")) watch->fire();
  }
}

}  // namespace thmp
