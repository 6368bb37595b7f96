// The library's mutexes: std::mutex and std::shared_mutex with the annotations that let
// clang check, at build time, that every guarded member is reached under its lock
// (thread_annotations.h), and the scoped holders that take and release them.
#ifndef ZOVDX_UTILS_MUTEX_H_
#define ZOVDX_UTILS_MUTEX_H_

#include <mutex>
#include <shared_mutex>

#include "utils/thread_annotations.h"

namespace utils {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() ACQUIRE() { mutex_.lock(); }
  void Unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Many readers or one writer.
class CAPABILITY("shared mutex") SharedMutex {
 public:
  SharedMutex() = default;
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  void Lock() ACQUIRE() { mutex_.lock(); }
  void Unlock() RELEASE() { mutex_.unlock(); }
  void LockShared() ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void UnlockShared() RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

// Holds a Mutex for its scope.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex* mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_->Lock(); }
  ~MutexLock() RELEASE() { mutex_->Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex* const mutex_;
};

// Holds a SharedMutex exclusively for its scope.
class SCOPED_CAPABILITY WriterLock {
 public:
  explicit WriterLock(SharedMutex* mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_->Lock(); }
  ~WriterLock() RELEASE() { mutex_->Unlock(); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  SharedMutex* const mutex_;
};

// Holds a SharedMutex shared for its scope.
class SCOPED_CAPABILITY ReaderLock {
 public:
  explicit ReaderLock(SharedMutex* mutex) ACQUIRE_SHARED(mutex) : mutex_(mutex) {
    mutex_->LockShared();
  }
  ~ReaderLock() RELEASE() { mutex_->UnlockShared(); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

 private:
  SharedMutex* const mutex_;
};

}  // namespace utils

#endif  // ZOVDX_UTILS_MUTEX_H_
