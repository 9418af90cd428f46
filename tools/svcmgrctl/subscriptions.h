// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_SUBSCRIPTIONS_H_
#define TOOLS_SVCMGRCTL_SUBSCRIPTIONS_H_

#include <utility>
#include <velmora_svcmgr.hpp>

#include "failure.h"

namespace svcmgrctl {

/** A subscription, which ends with the token; or the failure, thrown. */
inline vs::Token Subscribed(vs::Outcome<vs::Token> subscription) {
  if (!subscription) throw FailureOf(subscription.error());
  return *std::move(subscription);
}

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_SUBSCRIPTIONS_H_
