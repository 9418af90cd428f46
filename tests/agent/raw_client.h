// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_AGENT_RAW_CLIENT_H_
#define TESTS_AGENT_RAW_CLIENT_H_

#include <rpc-port.h>

#include <deque>
#include <functional>
#include <string>

#include "protocol/parcel.h"

/** A client that speaks to the agent parcel by parcel. */
class RawClient {
 public:
  RawClient();
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  /** Starts connecting; the platform's code. */
  int StartConnecting();

  /** Connects and waits until the connection stands. */
  void Connect();

  /** Runs the main loop until something holds; fails the test after a generous while. */
  static bool Await(const std::function<bool()>& condition);

  void Send(const sim::Parcel& request) const;

  /** The next message on the main port. */
  sim::Parcel Reply() const { return sim::Parcel::From(main_); }

  /** Waits for the next message on the callback port. */
  sim::Parcel Answer();

  /** Messages of the callback port that could not be read. */
  int unreadable() const { return unreadable_; }
  bool connected() const { return connected_; }
  int disconnected() const { return disconnected_; }
  int rejected() const { return rejected_; }
  rpc_port_h main_port() const { return main_; }

 private:
  static void OnConnected(const char*, const char*, rpc_port_h port, void* data);
  static void OnDisconnected(const char*, const char*, void* data);
  static void OnRejected(const char*, const char*, void* data);
  static void OnReceived(const char*, const char*, void* data);

  rpc_port_proxy_h proxy_ = nullptr;
  rpc_port_h main_ = nullptr;
  rpc_port_h callback_ = nullptr;
  bool connected_ = false;
  int disconnected_ = 0;
  int rejected_ = 0;
  int unreadable_ = 0;
  std::deque<sim::Parcel> answers_;
};

#endif  // TESTS_AGENT_RAW_CLIENT_H_
