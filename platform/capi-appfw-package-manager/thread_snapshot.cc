// SPDX-License-Identifier: Apache-2.0
#include "thread_snapshot.h"

#include <pthread.h>

namespace packages {

void ThreadSnapshot::Hold(const Snapshot* snapshot) {
  if (snapshot == snapshot_) return;
  LetGo();
  if (closed_ || !WillHearOfItsEnd()) return;
  snapshot_ = snapshot;
  TakeShares();
}

void ThreadSnapshot::LetGo() {
  if (snapshot_) snapshot_->Release(shares_);
  snapshot_ = nullptr;
  shares_ = 0;
}

void ThreadSnapshot::TakeShares() {
  constexpr uint64_t kInAdvance = 1 << 16;
  snapshot_->Hold(kInAdvance);
  shares_ += kInAdvance;
}

void ThreadSnapshot::EndOfThread(void* ending) {
  auto* snapshot = static_cast<ThreadSnapshot*>(ending);
  snapshot->LetGo();
  snapshot->closed_ = true;
}

// By a pthread key, which may fail harmlessly. Where a thread-local object's destructor cannot be
// registered, the process is aborted.
bool ThreadSnapshot::WillHearOfItsEnd() {
  static const struct Key {
    pthread_key_t key = 0;
    const bool is_made = pthread_key_create(&key, EndOfThread) == 0;
  } end;
  return end.is_made && pthread_setspecific(end.key, this) == 0;
}

}  // namespace packages
