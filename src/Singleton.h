// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_SINGLETON_H_
#define SVCMGR_SINGLETON_H_

#include <new>

// The one instance of a subscriber, built on first use.
//
// The instance is never taken away: an application may call the library from destructors that run
// when the process exits. At exit it only forgets its subscription, which is left to the platform.
template <typename T>
class Singleton {
 public:
  virtual ~Singleton() = default;

  static T& GetInstance() {
    alignas(T) static unsigned char storage[sizeof(T)];
    static T* const instance = new (storage) T();
    static const ExitHook exit_hook{instance};
    return *instance;
  }

 private:
  // For T alone: no other class may pass for its base.
  friend T;
  Singleton() = default;
  Singleton(const Singleton&) = delete;
  Singleton& operator=(const Singleton&) = delete;

  struct ExitHook {
    T* instance;
    ~ExitHook() { instance->ForgetSubscription(); }
  };
};

#endif  // SVCMGR_SINGLETON_H_
