// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_SINGLETON_H_
#define SVCMGR_SINGLETON_H_

#include <pthread.h>

#include <new>

// The one instance of a subscriber, built on first use.
//
// The instance is never taken away: an application may call the library from destructors that run
// when the process exits. At exit it only forgets its subscription, which is left to the platform. A
// forked child has it as new: the subscription is its parent's.
template <typename T>
class Singleton {
 public:
  virtual ~Singleton() = default;

  static T& GetInstance() {
    alignas(T) static unsigned char storage[sizeof(T)];
    static T* const instance = new (storage) T();
    static const Hooks hooks(instance);
    return *instance;
  }

 private:
  // For T alone: no other class may pass for its base.
  friend T;
  Singleton() = default;
  Singleton(const Singleton&) = delete;
  Singleton& operator=(const Singleton&) = delete;

  struct Hooks {
    explicit Hooks(T* made) {
      instance = made;
      pthread_atfork(nullptr, nullptr, [] { instance->ForgetAll(); });
    }
    ~Hooks() { instance->ForgetSubscription(); }

    inline static T* instance = nullptr;
  };
};

#endif  // SVCMGR_SINGLETON_H_
