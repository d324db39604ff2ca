// SPDX-License-Identifier: Apache-2.0
//
// The standard mutexes with the annotations that clang's thread-safety analysis needs.
#pragma once

#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#include "base/thread_annotations.h"

namespace thmp {

class THMP_CAPABILITY("mutex") Mutex {
 public:
  void lock() THMP_ACQUIRE() { mutex_.lock(); }
  void unlock() THMP_RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

/// A monitor that the thread holding it may enter again.
class THMP_CAPABILITY("recursive mutex") RecursiveMutex {
 public:
  void lock() THMP_ACQUIRE() { mutex_.lock(); }
  void unlock() THMP_RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

/// One that changes, or many that read.
class THMP_CAPABILITY("shared mutex") SharedMutex {
 public:
  void lock() THMP_ACQUIRE() { mutex_.lock(); }
  void unlock() THMP_RELEASE() { mutex_.unlock(); }
  void lockShared() THMP_ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void unlockShared() THMP_RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

/// Holds `mutex` for its scope. Waits on a condition with ConditionVariable::wait.
template <typename MutexType>
class THMP_SCOPED_CAPABILITY BasicLock {
 public:
  explicit BasicLock(MutexType& mutex) THMP_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~BasicLock() THMP_RELEASE() { mutex_.unlock(); }
  BasicLock(const BasicLock&) = delete;
  BasicLock& operator=(const BasicLock&) = delete;

 private:
  MutexType& mutex_;
};

/// Holds `mutex` for reading, for its scope.
class THMP_SCOPED_CAPABILITY SharedLock {
 public:
  explicit SharedLock(SharedMutex& mutex) THMP_ACQUIRE_SHARED(mutex) : mutex_(mutex) {
    mutex_.lockShared();
  }
  ~SharedLock() THMP_RELEASE_GENERIC() { mutex_.unlockShared(); }
  SharedLock(const SharedLock&) = delete;
  SharedLock& operator=(const SharedLock&) = delete;

 private:
  SharedMutex& mutex_;
};

using Lock = BasicLock<Mutex>;
using RecursiveLock = BasicLock<RecursiveMutex>;
using ExclusiveLock = BasicLock<SharedMutex>;

/// For threads that wait with a Mutex held; the caller loops on its own condition.
using ConditionVariable = std::condition_variable_any;

}  // namespace thmp
