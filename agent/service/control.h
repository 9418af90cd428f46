// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_CONTROL_H_
#define AGENT_SERVICE_CONTROL_H_

#include <list>
#include <memory>
#include <string>

#include "service/event_source.h"
#include "service/update_runner.h"
#include "unique_fd.h"

namespace sim {

/*
 * The control socket, through which a running agent is prompted: a sequence of packets on a local
 * socket in the world's folder. A request is the ID of its steps, a line feed and the steps as JSON;
 * the answer is empty when they are done, else what went wrong. A client that gets no answer asks
 * the agent's next process, with the same ID.
 */

/** The environment variable that names the world's control socket. */
constexpr char kControlVariable[] = "SVCMGR_SIM_CONTROL";

/** Makes the socket and listens. Throws std::system_error. */
base::UniqueFd ListenForSteps(const std::string& path);

/**
 * Sends steps to the agent and waits until they are done; empty on success, else what went wrong.
 */
std::string SendSteps(const std::string& path, const std::string& document);

/** The agent's end: takes requests on the default main context. */
class ControlPort {
 public:
  /** `listener` is borrowed, and outlives this process; `runner` must outlive the port. */
  ControlPort(int listener, UpdateRunner& runner);
  ControlPort(const ControlPort&) = delete;
  ControlPort& operator=(const ControlPort&) = delete;

 private:
  struct Caller {
    base::UniqueFd fd;
    bool has_asked = false;
    EventSource source;
  };

  void Accept();
  void MakeRoom();
  void Hear(const std::shared_ptr<Caller>& caller);
  void Drop(const std::shared_ptr<Caller>& caller);

  int listener_;
  UpdateRunner& runner_;
  EventSource source_;
  std::list<std::shared_ptr<Caller>> callers_;  // the oldest first
};

}  // namespace sim

#endif  // AGENT_SERVICE_CONTROL_H_
