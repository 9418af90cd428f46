// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_MARSHALLING_H_
#define SVCMGR_MARSHALLING_H_

// One Write and one Read for each record: its fields in wire order.

#include <memory_resource>
#include <string>

#include "parcel.h"
#include "svcmgr_protocol.h"

namespace rpc_port::SvcMgrAppProxy::proxy {

inline void Write(svcmgr::ParcelWriter& out, const std::string& text) { out.String(text.c_str()); }

inline void Write(svcmgr::ParcelWriter& out, const DelegateHeader& header) {
  out.Int32(header.id);
  out.Int32(header.seq);
  out.Bool(header.once);
}

inline void Write(svcmgr::ParcelWriter& out, const AIModelInfo& model) {
  out.String(model.id);
  out.String(model.version);
  out.String(model.title);
  out.String(model.description);
}

inline void Write(svcmgr::ParcelWriter& out, const AIModelList& list) {
  out.Count(static_cast<int>(list.models.size()));
  for (const AIModelInfo& model : list.models) Write(out, model);
  out.Int32(list.count);
}

inline void Write(svcmgr::ParcelWriter& out, const AgentUpdateRequest& request) {
  out.Count(static_cast<int>(request.agents.size()));
  for (const char* agent : request.agents) out.String(agent);
  out.Int32(request.count);
}

inline void Read(svcmgr::ParcelReader& in, DelegateHeader& header) {
  header.id = in.Int32();
  header.seq = in.Int32();
  header.once = in.Bool();
}

inline void Read(svcmgr::ParcelReader& in, AIModelInfo& model, std::pmr::memory_resource& memory) {
  model.id = in.StringIn(memory);
  model.version = in.StringIn(memory);
  model.title = in.StringIn(memory);
  model.description = in.StringIn(memory);
}

// The count may lie: nothing is allocated for elements that are not there.
inline void Read(svcmgr::ParcelReader& in, AIModelList& list) {
  const int size = in.Count();
  std::pmr::memory_resource& memory = *list.models.get_allocator().resource();
  for (int i = 0; i < size && in.ok(); ++i) Read(in, list.models.emplace_back(), memory);
  list.count = in.Int32();
}

inline void Read(svcmgr::ParcelReader& in, AIUpdateProgressInfo& progress) {
  progress.state = in.Int32();
  progress.index = in.Int32();
  progress.count = in.Int32();
  progress.percentage = in.Int32();
}

}  // namespace rpc_port::SvcMgrAppProxy::proxy

#endif  // SVCMGR_MARSHALLING_H_
