// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_CONNECTION_H_
#define RPC_PORT_CONNECTION_H_

#include <memory>

#include "handles.h"
#include "loop_source.h"
#include "stream.h"

namespace rpc_port_desktop {

// The two streams of a connection, watched by one source, and their handles.
struct Connection {
  Connection(std::shared_ptr<Stream> main_stream, std::shared_ptr<Stream> callback_stream)
      : main(std::move(main_stream)), callback(std::move(callback_stream)) {}
  ~Connection() { Close(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Lets applications use the streams. May be called again if it throws.
  void Publish() {
    if (main_port == nullptr) main_port = Handles<Stream>::Get().Add(main);
    if (callback_port == nullptr) callback_port = Handles<Stream>::Get().Add(callback);
  }

  // What its streams showed when this dispatch began.
  struct Events {
    unsigned main;
    unsigned callback;
  };
  Events Look() const {
    const auto [main_events, callback_events] = source->Events(main->fd(), callback->fd());
    return {main_events, callback_events};
  }
  static bool HungUp(unsigned events) { return (events & (G_IO_HUP | G_IO_ERR)) != 0; }

  // The peer is gone: no more events, but the ports still hold what has arrived.
  void End() {
    source->Destroy();
    main->ShutDown();
    callback->ShutDown();
  }

  // Whoever waits on a port wakes up, and the handles become invalid.
  void Close() {
    source->Destroy();
    main->Close();
    callback->Close();
    Handles<Stream>::Get().Remove(main_port);
    Handles<Stream>::Get().Remove(callback_port);
  }

  const std::shared_ptr<Stream> main;
  const std::shared_ptr<Stream> callback;
  const std::shared_ptr<LoopSource> source = std::make_shared<LoopSource>();
  void* main_port = nullptr;
  void* callback_port = nullptr;
};

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_CONNECTION_H_
