// SPDX-License-Identifier: Apache-2.0
#include "stream.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "codes.h"

namespace rpc_port_desktop {
namespace {

constexpr size_t kReadAhead = size_t{32} << 10;
// How much of a skipped message is read at once.
constexpr size_t kScratch = size_t{16} << 10;
// From this size on, handing over the whole buffer is cheaper than copying the message out of it.
constexpr size_t kHandOver = size_t{4} << 10;

void WaitFor(int fd, short events) {
  pollfd wait = {fd, events, 0};
  // A signal only makes the caller look once more.
  (void)poll(&wait, 1, -1);
}

// The number of bytes that the peer took; -1 if it is gone.
ssize_t SendOnce(int fd, const uint8_t* bytes, size_t size) {
  for (;;) {
    const ssize_t sent = send(fd, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) return sent;
    if (errno == EAGAIN) return 0;
    if (errno != EINTR) return -1;
  }
}

}  // namespace

Stream::Stream(base::UniqueFd socket, size_t max_content)
    : socket_(std::move(socket)), max_content_(max_content) {}

// Needs read_mutex_, as do all down to SkipFront.
bool Stream::FrontIsWhole() {
  const size_t held = in_end_ - in_begin_;
  if (held < kPrefixSize) return false;
  // Unsigned, so that a negative length is merely one of those that exceed the limit.
  const size_t content = LoadLe32(in_.data() + in_begin_);
  if (content > max_content_) {
    ended_ = true;
    Consume(held);
    return false;
  }
  return held - kPrefixSize >= content;
}

// Makes room after what is held: at least for the rest of the message at the front, whose buffer
// then holds it and nothing else if it is a large one. 0 if it is full of whole messages.
size_t Stream::RoomToRead() {
  if (FrontIsWhole()) return in_.capacity() - in_end_;
  const size_t held = in_end_ - in_begin_;
  size_t message = kPrefixSize;
  if (held >= kPrefixSize) message += LoadLe32(in_.data() + in_begin_);
  if (in_begin_ > 0 && message > in_.capacity() - in_begin_) {
    std::memmove(in_.data(), in_.data() + in_begin_, held);
    in_begin_ = 0;
    in_end_ = held;
  }
  if (in_begin_ + message > in_.capacity() && !in_.Resize(std::max(message, kReadAhead))) {
    throw std::bad_alloc();
  }
  return in_.capacity() - in_end_;
}

void Stream::Consume(size_t size) {
  in_begin_ += size;
  if (in_begin_ < in_end_) return;
  in_begin_ = in_end_ = 0;
  if (in_.capacity() > kReadAhead) in_.Reset();
}

// Returns what recv does; marks the stream as ended if nothing more can come.
ssize_t Stream::ReadSome(uint8_t* bytes, size_t size) {
  ssize_t got;
  do {
    got = recv(fd(), bytes, size, MSG_DONTWAIT);
  } while (got < 0 && errno == EINTR);
  if (got == 0 || (got < 0 && errno != EAGAIN)) ended_ = true;
  return got;
}

void Stream::ReadOnce() {
  if (ended_) return;
  const size_t room = RoomToRead();
  if (ended_ || room == 0) return;
  const ssize_t got = ReadSome(in_.data() + in_end_, room);
  if (got > 0) in_end_ += static_cast<size_t>(got);
}

bool Stream::TakeFront(Parcel* parcel) {
  if (!FrontIsWhole()) return false;
  const uint8_t* front = in_.data() + in_begin_;
  const size_t content = LoadLe32(front);
  const size_t message = kPrefixSize + content;
  if (message >= kHandOver && in_begin_ == 0 && in_end_ == message) {
    parcel->Adopt(std::move(in_), message);
    in_begin_ = in_end_ = 0;
  } else {
    if (!parcel->Assign(front + kPrefixSize, content)) throw std::bad_alloc();
    Consume(message);
  }
  ++taken_;
  return true;
}

// What Receive returns; none if it has to wait for more.
std::optional<int> Stream::TryReceive(Parcel* parcel, bool readable) {
  if (!skipped_) {
    try {
      if (parcel == nullptr) throw std::bad_alloc();
      if (readable) ReadOnce();
      if (TakeFront(parcel)) return kOk;
    } catch (const std::bad_alloc&) {
      if (keeps_) {
        kept_ = taken_;
        return kOutOfMemory;
      }
      skipped_.emplace();
    }
  }
  if (skipped_ && SkipFront()) return kOutOfMemory;
  if (ended_) return kIoError;
  return std::nullopt;
}

// Drops the message as far as it has arrived; true once all of it is gone.
bool Stream::SkipFront() {
  uint8_t scratch[kScratch];
  while (skipped_->left() > 0) {
    const size_t held = std::min(in_end_ - in_begin_, skipped_->left());
    if (held > 0) {
      skipped_->Drop(in_.data() + in_begin_, held);
      Consume(held);
    } else if (!ended_) {
      const ssize_t got = ReadSome(scratch, std::min(sizeof scratch, skipped_->left()));
      if (got > 0) skipped_->Drop(scratch, static_cast<size_t>(got));
      if (got <= 0) return false;
    } else {
      return false;
    }
    if (skipped_->is_longer_than(max_content_)) ended_ = true;
  }
  skipped_.reset();
  ++taken_;
  return true;
}

size_t SkippedMessage::left() const {
  const bool known = dropped_ >= kPrefixSize;
  return kPrefixSize + (known ? LoadLe32(prefix_) : 0) - dropped_;
}

void SkippedMessage::Drop(const uint8_t* bytes, size_t size) {
  if (dropped_ < kPrefixSize) std::memcpy(prefix_ + dropped_, bytes, size);
  dropped_ += size;
}

bool SkippedMessage::is_longer_than(size_t max_content) const {
  return dropped_ >= kPrefixSize && LoadLe32(prefix_) > max_content;
}

void Stream::Fill() {
  std::lock_guard<std::mutex> lock(read_mutex_);
  ReadOnce();
}

std::optional<uint64_t> Stream::Front() {
  std::lock_guard<std::mutex> lock(read_mutex_);
  if (!FrontIsWhole()) return std::nullopt;
  return taken_;
}

bool Stream::Take(Parcel* parcel) {
  std::lock_guard<std::mutex> lock(read_mutex_);
  return TakeFront(parcel);
}

bool Stream::Discard(uint64_t number) {
  std::lock_guard<std::mutex> lock(read_mutex_);
  const bool is_kept = std::exchange(kept_, std::nullopt) == taken_;
  if (taken_ != number || !FrontIsWhole()) return true;
  if (is_kept) return false;
  Consume(kPrefixSize + LoadLe32(in_.data() + in_begin_));
  ++taken_;
  return true;
}

int Stream::Receive(Parcel* parcel) {
  for (bool readable = false; !closed_; readable = true) {
    {
      std::lock_guard<std::mutex> lock(read_mutex_);
      if (const auto result = TryReceive(parcel, readable)) return *result;
    }
    WaitFor(fd(), POLLIN);
  }
  return kIoError;
}

void Stream::KeepWhatDoesNotFit() {
  std::lock_guard<std::mutex> lock(read_mutex_);
  keeps_ = true;
}

bool Stream::ended() {
  std::lock_guard<std::mutex> lock(read_mutex_);
  return ended_;
}

void Stream::set_max_content(size_t max_content) {
  std::lock_guard<std::mutex> lock(read_mutex_);
  max_content_ = max_content;
}

void Stream::QueueWrites(std::shared_ptr<LoopSource> source) {
  std::lock_guard<std::mutex> lock(write_mutex_);
  write_source_ = std::move(source);
}

int Stream::Send(const void* bytes, size_t size) {
  std::lock_guard<std::mutex> lock(write_mutex_);
  const auto* begin = static_cast<const uint8_t*>(bytes);
  return write_source_ ? SendOrQueue(begin, size) : SendAll(begin, size);
}

// Needs write_mutex_, as do the next two.
int Stream::SendAll(const uint8_t* bytes, size_t size) {
  for (;;) {
    if (closed_) return kIoError;
    const ssize_t sent = SendOnce(fd(), bytes, size);
    if (sent < 0) return kIoError;
    bytes += sent;
    size -= static_cast<size_t>(sent);
    if (size == 0) return kOk;
    WaitFor(fd(), POLLOUT);
  }
}

int Stream::SendOrQueue(const uint8_t* bytes, size_t size) {
  if (closed_) return kIoError;
  if (out_begin_ == out_end_) {
    const ssize_t sent = SendOnce(fd(), bytes, size);
    if (sent < 0) return kIoError;
    bytes += sent;
    size -= static_cast<size_t>(sent);
    if (size == 0) return kOk;
  }
  if (!Enqueue(bytes, size)) {
    // Half a message may have gone out already: nothing sensible can follow it.
    Close();
    return kIoError;
  }
  write_source_->WatchWritable(fd(), true);
  return kOk;
}

bool Stream::Enqueue(const uint8_t* bytes, size_t size) {
  const size_t queued = out_end_ - out_begin_;
  if (size > kMaxQueued - queued) return false;
  if (size > out_.capacity() - out_end_) {
    if (queued != 0) std::memmove(out_.data(), out_.data() + out_begin_, queued);
    out_begin_ = 0;
    out_end_ = queued;
    // Twice what is needed: many small messages are then moved a few times, not once each.
    const size_t wanted = (queued + size) * 2;
    if (out_.capacity() < wanted && !out_.Resize(wanted)) return false;
  }
  std::memcpy(out_.data() + out_end_, bytes, size);
  out_end_ += size;
  return true;
}

void Stream::Flush() {
  std::lock_guard<std::mutex> lock(write_mutex_);
  if (out_begin_ < out_end_) {
    const ssize_t sent = SendOnce(fd(), out_.data() + out_begin_, out_end_ - out_begin_);
    // Nobody will take the rest of it; the reading side learns of the end by itself.
    out_begin_ = sent < 0 ? out_end_ : out_begin_ + static_cast<size_t>(sent);
  }
  if (out_begin_ < out_end_) return;
  out_begin_ = out_end_ = 0;
  out_.Reset();
  if (write_source_) write_source_->WatchWritable(fd(), false);
}

void Stream::ShutDown() { (void)shutdown(fd(), SHUT_RDWR); }

void Stream::Close() {
  if (!closed_.exchange(true)) ShutDown();
}

}  // namespace rpc_port_desktop
