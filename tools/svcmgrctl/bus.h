// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_BUS_H_
#define TOOLS_SVCMGRCTL_BUS_H_

#include <memory>
#include <string>

namespace svcmgrctl {

/** An attempt to reach the session bus. Never blocks: call Step now and then. */
class BusProbe {
 public:
  enum class State { kUnderWay, kAnswers, kFails };

  BusProbe();
  ~BusProbe();
  BusProbe(const BusProbe&) = delete;
  BusProbe& operator=(const BusProbe&) = delete;

  /** Goes on as far as is possible at once. */
  State Step();

  /** Why it has failed. */
  std::string reason() const;

 private:
  struct Bus;
  std::unique_ptr<Bus> bus_;
};

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_BUS_H_
