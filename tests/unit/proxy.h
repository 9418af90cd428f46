/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_TESTS_UNIT_PROXY_H_
#define SVCMGR_TESTS_UNIT_PROXY_H_

// The port proxy on its own, with a listener and delegates that record.

#include <SvcMgrAppProxy.h>
#include <fake_platform.h>
#include <rpc-port.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace proxy {

using namespace rpc_port::SvcMgrAppProxy::proxy;  // NOLINT(google-build-using-namespace)

inline constexpr char kTarget[] = "org.example.agent";

struct Listener : SvcMgrAppPort::IEventListener {
  std::vector<std::string> events;
  std::function<void()> inside;  // runs inside each event

  void OnConnected() override { Note("connected"); }
  void OnDisconnected() override { Note("disconnected"); }
  void OnRejected() override { Note("rejected"); }

 private:
  void Note(const char* event) {
    events.emplace_back(event);
    if (inside) inside();
  }
};

/** Counts those alive, and their messages; reads nothing of a payload. */
class Delegate : public SvcMgrAppPort::CallbackBase {
  struct Data {
    int alive = 0;
    int messages = 0;
    std::function<void(rpc_port_parcel_h)> inside;
  };

 public:
  /** What a delegate does, for as long as the test looks; the delegate may live longer. */
  struct Record {
    std::shared_ptr<Data> data = std::make_shared<Data>();
    int& alive = data->alive;
    int& messages = data->messages;
    std::function<void(rpc_port_parcel_h)>& inside = data->inside;  // runs inside each message
  };

  Delegate(DelegateId id, bool once, const Record* record)
      : CallbackBase(id, once), data_(record->data) {
    ++data_->alive;
  }
  ~Delegate() override { --data_->alive; }
  void OnReceivedEvent(rpc_port_parcel_h parcel) override {
    ++data_->messages;
    if (data_->inside) data_->inside(parcel);
  }

 private:
  std::shared_ptr<Data> data_;
};

inline std::unique_ptr<Delegate> MakeDelegate(Delegate::Record* record, bool once = false,
                                              DelegateId id = DelegateId::GetUsableModelList) {
  return std::make_unique<Delegate>(id, once, record);
}

inline std::shared_ptr<SvcMgrAppPort> MakePort(Listener* listener) {
  return std::make_shared<SvcMgrAppPort>(listener, kTarget);
}

/** A port after its connected event, and a clear record. */
class ConnectedPort : public fake::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    port = MakePort(&listener);
    port->Connect();
    fake::Proxy().FireConnected();
    listener.events.clear();
    fake::ClearRecord();
  }

  void TearDown() override {
    port.reset();
    PlatformTest::TearDown();
  }

  /** Sends a request with a new delegate; returns the delegate's sequence number. */
  int Post(Delegate::Record* its_record, bool once = false) {
    auto delegate = MakeDelegate(its_record, once);
    const int seq = delegate->seq();
    port->GetUsableModelList(std::move(delegate), "id", "version");
    return seq;
  }

  Listener listener;
  Delegate::Record record;
  std::shared_ptr<SvcMgrAppPort> port;
};

}  // namespace proxy

#endif  // SVCMGR_TESTS_UNIT_PROXY_H_
