// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_SVCMGR_PROTOCOL_H_
#define SVCMGR_SVCMGR_PROTOCOL_H_

// The numbers of the agent's port, and the records that travel in its parcels.
//
//     request           int32 method, then the arguments in the order of the method's declaration
//     reply             int32 kReplyCommand, then the result
//     delegate message  int32 kDelegateCommand, DelegateHeader, int32 result, then the payload

#include <list>
#include <memory_resource>

namespace rpc_port::SvcMgrAppProxy::proxy {

constexpr char kPortName[] = "SvcMgrAppPort";

constexpr int kReplyCommand = 0;
constexpr int kDelegateCommand = 1;

enum class Method : int {
  get_agent_api_level = 2,         // reply: int32 level
  get_license = 3,                 // reply: string
  request_update = 4,              // reply: int32 result
  GetUsableModelList = 5,          // DelegateHeader, string app ID, string app version
  GetUsableModelListWithDesc = 6,  // DelegateHeader, string app ID, string app version
  GetModelVersionList = 7,         // DelegateHeader, AIModelInfo, string app ID, string app version
  RequestToUpdate = 8,             // DelegateHeader, AIModelList
  RequestToUninstall = 9,          // DelegateHeader, AIModelList
  request_update_with_list = 10,   // AgentUpdateRequest; reply: int32 result
};

enum class DelegateId : int {
  GetUsableModelList = 1,          // AIModelList
  GetUsableModelListWithDesc = 2,  // AIModelList
  GetModelVersionList = 3,         // AIModelList
  RequestToUpdate = 4,             // AIUpdateProgressInfo
  RequestToUninstall = 5,          // AIUpdateProgressInfo
};

// The fields of each record stand in wire order. A list is an int32 count, then its elements.

// Which delegate awaits the answers to a request.
struct DelegateHeader {
  int id = 0;
  int seq = 0;
  // Whether the first answer is the last one.
  bool once = false;
};

// The texts belong to the application in a request, to what was read in an answer.
struct AIModelInfo {
  const char* id;
  const char* version;
  const char* title;
  const char* description;
};

struct AIModelList {
  AIModelList() = default;
  // What is read into the list takes its memory there, texts and all.
  explicit AIModelList(std::pmr::memory_resource* memory) : models(memory) {}

  std::pmr::list<AIModelInfo> models;
  // What the sender says, independently of the length of the list.
  int count = 0;
};

struct AIUpdateProgressInfo {
  int state = 0;
  int index = 0;
  int count = 0;
  int percentage = 0;
};

struct AgentUpdateRequest {
  std::list<const char*> agents;  // the application's
  int count = 0;
};

}  // namespace rpc_port::SvcMgrAppProxy::proxy

namespace rpc = rpc_port::SvcMgrAppProxy::proxy;

#endif  // SVCMGR_SVCMGR_PROTOCOL_H_
