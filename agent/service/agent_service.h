// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_AGENT_SERVICE_H_
#define AGENT_SERVICE_AGENT_SERVICE_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "protocol/messages.h"
#include "scenario/scenario.h"
#include "service/call_counter.h"
#include "service/delivery.h"
#include "service/model_runner.h"
#include "service/model_store.h"
#include "service/update_runner.h"
#include "trace/port_trace.h"

namespace sim {

/** What an agent's process is given. */
struct AgentOptions {
  int ready_fd = -1;    // a byte is written there, and it is closed, when clients can connect
  int control_fd = -1;  // listens for steps from outside, unless -1; borrowed
  std::string journal;  // file for the process that follows this one; may be empty
  int last_client = 0;  // the number of the last client of the processes before
};

/** The agent: serves its port as a scenario says, on the default main context. */
class AgentService {
 public:
  /**
   * `scenario` and `updates` must outlive the service. For `call_file`, see CallCounter; `last_client`
   * is as in AgentOptions.
   */
  AgentService(const Scenario& scenario, UpdateRunner& updates, const std::string& call_file,
               int last_client);
  ~AgentService();
  AgentService(const AgentService&) = delete;
  AgentService& operator=(const AgentService&) = delete;

  /** Starts to accept clients. Throws PlatformError. */
  void Listen();

  /** Takes a step that concerns the port. From the main loop, not inside an event of the port. */
  void Take(const Step& step);

 private:
  static bool OnAdmission(const char* sender, const char* instance, void* data);
  static void OnConnected(const char* sender, const char* instance, void* data);
  static void OnDisconnected(const char* sender, const char* instance, void* data);
  static int OnReceived(const char* sender, const char* instance, rpc_port_h port, void* data);

  void Serve(const std::string& instance, Parcel& parcel);
  std::vector<TimedParcel> Answer(const Request& request, const MethodScript& script,
                                  std::int32_t result);
  const std::string& Known(const Request& request, const MethodScript& script, std::int32_t result);
  const std::string& KnownReply(std::int32_t result);
  const std::string& KnownLicence(const MethodScript& script);
  const std::string& KnownListOf(const Request& request, const MethodScript& script,
                                 std::int32_t result);
  std::vector<ModelView> Models(const Request& request) const;
  std::vector<ModelView> Versions(const Request& request) const;

  bool Refuses(const std::string& application) const;
  std::int32_t ResultOf(Method method, std::size_t call) const;
  std::int32_t UsualResult(Method method) const;
  void Close();

  // The last message of each kind, as it travels, and what it depended on.
  struct KnownNumber {
    std::int32_t result = 0;
    std::string message;
  };
  struct KnownText {
    const std::string* text = nullptr;
    std::string message;
  };
  struct KnownList {
    const MethodScript* script = nullptr;
    std::int32_t result = 0;
    std::uint64_t state = 0;
    std::string app_id;
    std::string model_id;
    std::string message;
  };

  const Scenario& scenario_;
  UpdateRunner& updates_;
  PortTrace trace_;
  CallCounter calls_;
  std::map<std::string, std::string> guests_;  // applications by their instances
  rpc_port_stub_h stub_ = nullptr;
  std::unique_ptr<DeliveryQueue> deliveries_;
  ModelStore store_;
  KnownNumber known_reply_;
  KnownText known_licence_;
  std::map<Method, KnownList> known_lists_;  // by their methods
  std::unique_ptr<ModelRunner> work_;
};

/** The exit status of an agent that wants a new process in its place. */
constexpr int kReplaceMe = 75;

/**
 * Runs the agent until SIGTERM, SIGINT or SIGHUP, or until its own update needs a new process; returns
 * the process's exit status. Throws if it cannot serve: for one, if another process has the agent's
 * name on the session bus.
 */
int RunAgent(const Scenario& scenario, const AgentOptions& options);

}  // namespace sim

#endif  // AGENT_SERVICE_AGENT_SERVICE_H_
