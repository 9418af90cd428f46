// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_DELEGATE_LIST_H_
#define SVCMGR_DELEGATE_LIST_H_

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace svcmgr {

// The delegates whose messages are awaited. They accumulate for the life of a connection, so they
// are found by a hash of ID and sequence number, which no two delegates of a process share.
template <typename Delegate>
class DelegateList {
 public:
  void Append(std::shared_ptr<Delegate> delegate) {
    const std::lock_guard lock(links_);
    const auto key = Key(delegate->id(), delegate->seq());
    delegates_.emplace(key, std::move(delegate));
  }

  // The delegate stays alive in the caller's hands, whatever happens to the list.
  std::shared_ptr<Delegate> Find(int id, int seq) const {
    const std::lock_guard lock(links_);
    const auto found = delegates_.find(Key(id, seq));
    return found == delegates_.end() ? nullptr : found->second;
  }

  void Remove(const Delegate& delegate) {
    const std::lock_guard lock(links_);
    delegates_.erase(Key(delegate.id(), delegate.seq()));
  }

  void Clear() {
    std::unordered_map<std::uint64_t, std::shared_ptr<Delegate>> dropped;
    const std::lock_guard lock(links_);
    dropped.swap(delegates_);
  }

 private:
  static std::uint64_t Key(int id, int seq) {
    return static_cast<std::uint64_t>(static_cast<std::uint32_t>(id)) << 32 |
           static_cast<std::uint32_t>(seq);
  }

  // Guards the links alone and is never held while calling out: a thread that waits for a reply
  // cannot keep dispatch waiting.
  mutable std::mutex links_;
  std::unordered_map<std::uint64_t, std::shared_ptr<Delegate>> delegates_;
};

}  // namespace svcmgr

#endif  // SVCMGR_DELEGATE_LIST_H_
