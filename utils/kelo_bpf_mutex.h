// A std::mutex that clang's thread-safety analysis understands, so that every
// GUARDED_BY member in the service is checked at compile time. libstdc++'s own
// mutex carries no capability annotations.
//
// The annotation macros (GUARDED_BY, REQUIRES, ...) come from the platform's
// android-base/thread_annotations.h, which spells them as attributes for every
// compiler. Only clang knows them; for any other compiler this header turns
// them into nothing. A file that uses the macros includes this header, before
// or after android-base's: the latter is included only once, so the empty
// form stays in force for the rest of the file.
#pragma once

#include <android-base/thread_annotations.h>

#if !defined(__clang__)
#undef THREAD_ANNOTATION_ATTRIBUTE__
#define THREAD_ANNOTATION_ATTRIBUTE__(x)
#endif

#include <condition_variable>
#include <mutex>

namespace Kelo {
namespace Bpf {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

  // For std::condition_variable, which needs the underlying std::mutex.
  std::mutex& native() { return mutex_; }

 private:
  std::mutex mutex_;
};

class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace Bpf
}  // namespace Kelo
