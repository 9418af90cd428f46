// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_CHECKSUM_H_
#define BENCH_CHECKSUM_H_

#include <cstdint>
#include <string>
#include <string_view>

// What an answer says, as one number (64-bit FNV-1a over each text and its end), so that programs
// which know nothing of each other can be held to the same answer.
class Checksum {
 public:
  void Add(std::string_view text) {
    for (const char byte : text) Add(static_cast<unsigned char>(byte));
    Add(static_cast<unsigned char>(0));
  }
  void Add(int number) { Add(std::to_string(number)); }

  std::uint64_t value() const { return value_; }

 private:
  void Add(unsigned char byte) { value_ = (value_ ^ byte) * 0x100000001b3U; }

  std::uint64_t value_ = 0xcbf29ce484222325U;
};

template <typename What>
std::uint64_t ChecksumOf(const What& what) {
  Checksum sum;
  sum.Add(what);
  return sum.value();
}

#endif  // BENCH_CHECKSUM_H_
