// SPDX-License-Identifier: Apache-2.0
// The bytes of a connection, in pieces of any size, compared with the messages that they hold.
//
// Input: a byte for the longest message that is allowed, then pieces as blocks, each after a byte
// that says what happens once it has arrived.

#include "stream.h"

#include <sys/socket.h>
#include <unistd.h>

#include "codes.h"
#include "input.h"
#include "unique_fd.h"

using rpc_port_desktop::Parcel;
using rpc_port_desktop::Stream;

namespace {

// The messages in a row of bytes, one by one.
class Expected {
 public:
  explicit Expected(std::size_t max_content) : max_content_(max_content) {}

  void Arrive(std::string_view bytes) { bytes_ += bytes; }

  bool Next(std::string* content) {
    if (broken_ || bytes_.size() < 4) return false;
    std::size_t size = 0;
    for (std::size_t i = 4; i-- > 0;) size = size << 8 | static_cast<std::uint8_t>(bytes_[i]);
    broken_ = size > max_content_;
    if (broken_ || bytes_.size() - 4 < size) return false;
    *content = bytes_.substr(4, size);
    bytes_.erase(0, 4 + size);
    return true;
  }

 private:
  const std::size_t max_content_;
  std::string bytes_;
  bool broken_ = false;
};

struct Both {
  Both(base::UniqueFd socket, std::size_t max_content)
      : stream(std::move(socket), max_content), expected(max_content) {}

  // Reads all that has arrived. A buffer that is full takes no more before a message is taken.
  void ReadAll() {
    char next;
    do {
      stream.Fill();
      if (!stream.ended() && recv(stream.fd(), &next, 1, MSG_PEEK) <= 0) return;
      if (stream.Front()) TakeOne();
    } while (!stream.ended());
  }

  bool TakeOne() {
    std::string content;
    Parcel parcel;
    const bool wanted = expected.Next(&content);
    REQUIRE(stream.Take(&parcel) == wanted);
    if (!wanted) return false;
    REQUIRE(content.compare(0, content.npos, reinterpret_cast<const char*>(parcel.content()),
                            parcel.content_size()) == 0);
    return true;
  }

  bool DiscardOne() {
    std::string content;
    const auto front = stream.Front();
    REQUIRE(front.has_value() == expected.Next(&content));
    if (front) stream.Discard(*front);
    return front.has_value();
  }

  // Wherever it is: in the buffer, in the kernel, or half here and half there.
  void SkipOne() {
    std::string content;
    if (expected.Next(&content)) REQUIRE(stream.Receive(nullptr) == rpc_port_desktop::kOutOfMemory);
  }

  Stream stream;
  Expected expected;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  int ends[2];
  REQUIRE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0);
  const base::UniqueFd peer(ends[1]);
  Input input(data, size);
  Both both{base::UniqueFd(ends[0]), std::size_t{64} << (input.Byte() % 16)};
  while (!input.empty()) {
    const std::uint8_t action = input.Byte();
    const std::string_view piece = input.Block();
    // A stream that has ended reads no more; what is sent to it stays in the kernel.
    if (both.stream.ended()) break;
    if (send(peer.get(), piece.data(), piece.size(), MSG_NOSIGNAL) < 0) break;
    both.expected.Arrive(piece);
    if (piece.empty()) continue;
    if (action & 8) both.SkipOne();
    both.ReadAll();
    for (int i = action % 4; i > 0; --i) both.TakeOne();
    if (action & 4) both.DiscardOne();
  }
  while (both.TakeOne()) continue;
  both.stream.Close();
  REQUIRE(both.stream.Receive(nullptr) == rpc_port_desktop::kIoError);
  return 0;
}
