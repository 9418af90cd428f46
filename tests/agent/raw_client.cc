// SPDX-License-Identifier: Apache-2.0
#include "raw_client.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>

#include "service/event_source.h"

namespace {
constexpr guint kPatienceMs = 60000;
}

RawClient::RawClient() {
  sim::Check(rpc_port_proxy_create(&proxy_), "no proxy");
  rpc_port_proxy_add_connected_event_cb(proxy_, OnConnected, this);
  rpc_port_proxy_add_disconnected_event_cb(proxy_, OnDisconnected, this);
  rpc_port_proxy_add_rejected_event_cb(proxy_, OnRejected, this);
  rpc_port_proxy_add_received_event_cb(proxy_, OnReceived, this);
}

RawClient::~RawClient() { rpc_port_proxy_destroy(proxy_); }

int RawClient::StartConnecting() {
  return rpc_port_proxy_connect(proxy_, AGENT_PACKAGE_ID, "SvcMgrAppPort");
}

void RawClient::Connect() {
  ASSERT_EQ(StartConnecting(), 0);
  ASSERT_TRUE(Await([this] { return connected_; })) << "not connected";
}

bool RawClient::Await(const std::function<bool()>& condition) {
  bool late = false;
  sim::EventSource limit;
  limit.After(kPatienceMs, [&] { late = true; });
  while (!late && !condition()) {
    g_main_context_iteration(nullptr, TRUE);
  }
  return condition();
}

void RawClient::Send(const sim::Parcel& request) const { ASSERT_TRUE(request.Send(main_)); }

sim::Parcel RawClient::Answer() {
  if (!Await([this] { return !answers_.empty(); })) {
    throw std::runtime_error("no answer");
  }
  sim::Parcel answer = std::move(answers_.front());
  answers_.pop_front();
  return answer;
}

void RawClient::OnConnected(const char*, const char*, rpc_port_h port, void* data) {
  auto* client = static_cast<RawClient*>(data);
  client->main_ = port;
  EXPECT_EQ(rpc_port_proxy_get_port(client->proxy_, RPC_PORT_PORT_CALLBACK, &client->callback_), 0);
  client->connected_ = true;
}

void RawClient::OnDisconnected(const char*, const char*, void* data) {
  ++static_cast<RawClient*>(data)->disconnected_;
}

void RawClient::OnRejected(const char*, const char*, void* data) {
  ++static_cast<RawClient*>(data)->rejected_;
}

void RawClient::OnReceived(const char*, const char*, void* data) {
  auto* client = static_cast<RawClient*>(data);
  try {
    client->answers_.push_back(sim::Parcel::From(client->callback_));
  } catch (const sim::PlatformError&) {
    ++client->unreadable_;
  }
}
