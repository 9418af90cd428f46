// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_STREAM_H_
#define RPC_PORT_STREAM_H_

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>

#include "byte_buffer.h"
#include "forks.h"
#include "loop_source.h"
#include "parcel.h"
#include "unique_fd.h"

namespace rpc_port_desktop {

// A message that is being dropped while it arrives.
class SkippedMessage {
 public:
  // How much of it is still to come, as far as is known; 0 once it is whole.
  size_t left() const;
  // Drops the bytes of it that came next.
  void Drop(const uint8_t* bytes, size_t size);
  bool is_longer_than(size_t max_content) const;

 private:
  size_t dropped_ = 0;
  uint8_t prefix_[kPrefixSize] = {};
};

// One end of a stream of messages: a non-blocking socket with a read-ahead buffer and, on the
// server's side, a queue of what the peer has not taken yet.
//
// Fill and Take throw std::bad_alloc if there is no memory for what has arrived, which then stays
// in the kernel or in the buffer.
//
// Thread-safe. No lock is held while a reader waits, so that the main loop never waits for a thread
// that is blocked on the same stream.
class Stream {
 public:
  // A peer that announces more than `max_content` bytes ends the stream.
  Stream(base::UniqueFd socket, size_t max_content);

  int fd() const { return socket_.get(); }

  // --- Reading

  // Reads once what has arrived; never blocks.
  void Fill();
  // The number of the message at the front; none if no whole message is buffered. Messages are
  // numbered in the order in which they arrive.
  std::optional<uint64_t> Front();
  // Moves the message at the front into the parcel; false if none is whole.
  bool Take(Parcel* parcel);
  // Drops the message with this number, if it is still at the front. False if it is kept, because a
  // receiver had no memory for it.
  bool Discard(uint64_t number);
  // Blocks for one whole message. Fails when the peer is gone and when the stream is closed.
  // Without memory for the message, or without a parcel, it also fails and skips the message:
  // whoever waits for a reply must not get the reply to an earlier request.
  int Receive(Parcel* parcel);
  // From now on a message that does not fit into memory is kept for another attempt.
  void KeepWhatDoesNotFit();
  // The peer is gone or has broken the rules: nothing will arrive after what is buffered.
  bool ended();
  void set_max_content(size_t max_content);

  // --- Writing

  // From now on a send never blocks: what the peer does not take at once is queued, and `source`
  // watches for it to take more. A peer that lets more than kMaxQueued bytes pile up is cut off.
  static constexpr size_t kMaxQueued = size_t{64} << 20;
  void QueueWrites(std::shared_ptr<LoopSource> source);
  // Writes all of it, in one call to the kernel if the peer has room.
  int Send(const void* bytes, size_t size);
  // Writes what is queued, as far as the peer takes it.
  void Flush();

  // --- Ending

  // Ends the transport in both directions. What is buffered can still be read.
  void ShutDown();
  // Ends the stream for everybody: blocked readers and writers wake up and fail. The descriptor
  // lives on until the last of them has let go of the stream.
  void Close();

 private:
  bool FrontIsWhole();
  size_t RoomToRead();
  void Consume(size_t size);
  ssize_t ReadSome(uint8_t* bytes, size_t size);
  void ReadOnce();
  bool TakeFront(Parcel* parcel);
  std::optional<int> TryReceive(Parcel* parcel, bool readable);
  bool SkipFront();
  int SendAll(const uint8_t* bytes, size_t size);
  int SendOrQueue(const uint8_t* bytes, size_t size);
  bool Enqueue(const uint8_t* bytes, size_t size);

  const OwnFd socket_;
  std::atomic<bool> closed_{false};

  std::mutex read_mutex_;  // guards the next nine
  size_t max_content_;
  ByteBuffer in_;
  size_t in_begin_ = 0;
  size_t in_end_ = 0;
  uint64_t taken_ = 0;
  bool ended_ = false;
  bool keeps_ = false;
  std::optional<uint64_t> kept_;  // the message that somebody had no memory for
  std::optional<SkippedMessage> skipped_;

  std::mutex write_mutex_;  // keeps messages whole, and guards the next four
  std::shared_ptr<LoopSource> write_source_;
  ByteBuffer out_;
  size_t out_begin_ = 0;
  size_t out_end_ = 0;
};

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_STREAM_H_
