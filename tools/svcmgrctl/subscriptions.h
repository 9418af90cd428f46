// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_SUBSCRIPTIONS_H_
#define TOOLS_SVCMGRCTL_SUBSCRIPTIONS_H_

#include <functional>

namespace svcmgrctl {

/** Hears of updates of the agents as long as it lives; one at a time. */
class UpdateSubscription {
 public:
  /** Fails with the library's code. `heard` gets the status. */
  explicit UpdateSubscription(std::function<void(int)> heard);
  ~UpdateSubscription();
  UpdateSubscription(const UpdateSubscription&) = delete;
  UpdateSubscription& operator=(const UpdateSubscription&) = delete;

 private:
  std::function<void(int)> heard_;
};

/** Hears of work on models as long as it lives; one at a time. */
class ModelSubscription {
 public:
  /** Fails with the library's code. `heard` gets the error and the status. */
  explicit ModelSubscription(std::function<void(int, int)> heard);
  ~ModelSubscription();
  ModelSubscription(const ModelSubscription&) = delete;
  ModelSubscription& operator=(const ModelSubscription&) = delete;

 private:
  std::function<void(int, int)> heard_;
};

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_SUBSCRIPTIONS_H_
