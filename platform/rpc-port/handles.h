// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_HANDLES_H_
#define RPC_PORT_HANDLES_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <unordered_map>

#include "forks.h"

namespace rpc_port_desktop {

// No number is used twice, not even for objects of different types.
inline std::atomic<uintptr_t> last_handle{0};

// The handles of one type of object. A handle is a number, not an address: one that has outlived
// its object, belongs to another type or was inherited across a fork is recognised without touching
// memory.
template <typename Object>
class Handles {
 public:
  // Lives until the process ends, because destructors that run at exit may still pass handles. It
  // takes no memory: the first to ask for it may be a destructor, where memory has just run out.
  static Handles& Get() noexcept {
    alignas(Handles) static unsigned char storage[sizeof(Handles)];
    static auto* const handles = new (storage) Handles;
    return *handles;
  }

  void* Add(std::shared_ptr<Object> object) {
    const uintptr_t handle = ++last_handle;
    std::lock_guard<std::mutex> lock(fork_mutex);
    objects_.emplace(handle, Entry{std::move(object), {}});
    return reinterpret_cast<void*>(handle);
  }

  // Null if the handle is not, or no longer, one of these.
  std::shared_ptr<Object> Find(void* handle) {
    std::lock_guard<std::mutex> lock(fork_mutex);
    const auto found = FindEntry(handle);
    return found == objects_.end() ? nullptr : found->second.object;
  }

  // Makes the handle invalid; null if it already was.
  std::shared_ptr<Object> Remove(void* handle) {
    std::lock_guard<std::mutex> lock(fork_mutex);
    const auto found = FindEntry(handle);
    if (found == objects_.end()) return nullptr;
    std::shared_ptr<Object> object = std::move(found->second.object);
    objects_.erase(found);
    return object;
  }

 private:
  struct Entry {
    std::shared_ptr<Object> object;
    Birth birth;
  };
  using Entries = std::unordered_map<uintptr_t, Entry>;
  static_assert(std::is_nothrow_default_constructible_v<Entries>);

  typename Entries::iterator FindEntry(void* handle) {
    const auto found = objects_.find(reinterpret_cast<uintptr_t>(handle));
    const bool inherited = found != objects_.end() && found->second.birth.IsInherited();
    return inherited ? objects_.end() : found;
  }

  Entries objects_;  // guarded by fork_mutex
};

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_HANDLES_H_
