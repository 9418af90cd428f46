// SPDX-License-Identifier: Apache-2.0
#include <climits>
#include <cstdlib>

#include "support.h"

using testing::SizeIs;

namespace {

constexpr size_t kMaxContent = size_t{16} << 20;

// Reading fails and leaves both the output and the read position alone.
void ExpectNoString(const std::string& bytes) {
  const Message message = Message::OfBytes(bytes);
  char untouched;
  char* text = &untouched;
  EXPECT_EQ(rpc_port_parcel_read_string(message.h, &text), -5) << testing::PrintToString(bytes);
  EXPECT_EQ(text, &untouched);
  if (bytes.size() < 4) return;
  int length = 0;
  EXPECT_EQ(rpc_port_parcel_read_int32(message.h, &length), 0);
  EXPECT_EQ(Int32(length), bytes.substr(0, 4));
}

}  // namespace

TEST(AParcel, StartsEmpty) { EXPECT_EQ(Message().Bytes(), ""); }

TEST(AParcel, WritesInt32AsFourLittleEndianBytes) {
  const Message message;
  EXPECT_EQ(rpc_port_parcel_write_int32(message.h, 0x01020304), 0);
  EXPECT_EQ(rpc_port_parcel_write_int32(message.h, -2), 0);
  EXPECT_EQ(message.Bytes(), "\x04\x03\x02\x01\xFE\xFF\xFF\xFF");
}

TEST(AParcel, WritesBoolAsOneByte) {
  const Message message;
  EXPECT_EQ(rpc_port_parcel_write_bool(message.h, true), 0);
  EXPECT_EQ(rpc_port_parcel_write_bool(message.h, false), 0);
  EXPECT_EQ(message.Bytes(), std::string("\x01\x00", 2));
}

TEST(AParcel, WritesStringAsLengthWithTerminatorAndBytes) {
  EXPECT_EQ(Message("ab").Bytes(), std::string("\x03\0\0\0ab\0", 7));
  EXPECT_EQ(Message("").Bytes(), std::string("\x01\0\0\0\0", 5));
}

TEST(AParcel, WritesArrayCountAsAnInt32) {
  const Message message;
  EXPECT_EQ(rpc_port_parcel_write_array_count(message.h, 3), 0);
  EXPECT_EQ(rpc_port_parcel_write_array_count(message.h, -1), 0);
  EXPECT_EQ(message.Bytes(), Int32(3) + Int32(-1));
}

TEST(AParcel, ReadsWhatWasWrittenInTheSameOrder) {
  const Message message;
  const int numbers[] = {0, 1, -1, INT_MAX, INT_MIN};
  for (const int number : numbers) rpc_port_parcel_write_int32(message.h, number);
  rpc_port_parcel_write_string(message.h, "text \xC3\xA4");
  rpc_port_parcel_write_bool(message.h, true);
  rpc_port_parcel_write_array_count(message.h, 7);
  for (const int number : numbers) {
    int read = 42;
    EXPECT_EQ(rpc_port_parcel_read_int32(message.h, &read), 0);
    EXPECT_EQ(read, number);
  }
  EXPECT_EQ(message.Text(), "text \xC3\xA4");
  bool flag = false;
  EXPECT_EQ(rpc_port_parcel_read_bool(message.h, &flag), 0);
  EXPECT_TRUE(flag);
  int count = 0;
  EXPECT_EQ(rpc_port_parcel_read_array_count(message.h, &count), 0);
  EXPECT_EQ(count, 7);
}

TEST(AParcel, ReadsEveryByteButZeroAsTrue) {
  const Message message = Message::OfBytes(std::string("\x00\x01\x02\xFF", 4));
  for (const bool expected : {false, true, true, true}) {
    bool value = !expected;
    EXPECT_EQ(rpc_port_parcel_read_bool(message.h, &value), 0);
    EXPECT_EQ(value, expected);
  }
}

TEST(AParcel, ReadsANegativeCountAsItStands) {
  const Message message = Message::OfBytes(Int32(-5));
  int count = 0;
  EXPECT_EQ(rpc_port_parcel_read_array_count(message.h, &count), 0);
  EXPECT_EQ(count, -5);
}

TEST(AParcel, KeepsStringsOfEveryLengthAroundItsFirstBuffer) {
  for (size_t length = 200; length < 500; ++length) {
    const std::string text(length, 'x');
    const Message message("front");
    ASSERT_EQ(rpc_port_parcel_write_string(message.h, text.c_str()), 0);
    ASSERT_EQ(message.Text(), "front");
    ASSERT_EQ(message.Text(), text);
  }
}

TEST(AParcel, FailsAtEveryPlaceWhereItIsCutOff) {
  const std::string whole = Int32(7) + "\x01" + Text("abc") + Int32(2);
  for (size_t size = 0; size < whole.size(); ++size) {
    const Message message = Message::OfBytes(whole.substr(0, size));
    int number = -1;
    bool flag = false;
    char* text = nullptr;
    int count = -1;
    EXPECT_EQ(rpc_port_parcel_read_int32(message.h, &number), size >= 4 ? 0 : -5);
    EXPECT_EQ(number, size >= 4 ? 7 : -1);
    if (size < 4) continue;
    EXPECT_EQ(rpc_port_parcel_read_bool(message.h, &flag), size >= 5 ? 0 : -5);
    EXPECT_EQ(flag, size >= 5);
    if (size < 5) continue;
    EXPECT_EQ(rpc_port_parcel_read_string(message.h, &text), size >= 13 ? 0 : -5) << size;
    EXPECT_EQ(text != nullptr, size >= 13);
    std::free(text);
    if (size < 13) continue;
    EXPECT_EQ(rpc_port_parcel_read_array_count(message.h, &count), -5);
    EXPECT_EQ(count, -1);
  }
}

TEST(AParcel, RefusesAStringWhoseLengthIsNotTrue) {
  const std::string text = std::string("abc\0", 4);
  for (const int32_t length : {-1, INT_MIN, INT_MAX, 0, 5, 1 << 24}) {
    ExpectNoString(Int32(length) + text);
  }
}

TEST(AParcel, RefusesAStringWithoutItsTerminator) {
  ExpectNoString(Int32(3) + "abc");
  ExpectNoString(Int32(3) + "abcd");
}

TEST(AParcel, RefusesAStringWithATerminatorInside) {
  ExpectNoString(Int32(4) + std::string("a\0c\0", 4));
  ExpectNoString(Int32(2) + std::string("\0\0", 2));
}

TEST(AParcel, RefusesToReadFromNothing) {
  for (size_t size = 0; size < 4; ++size) ExpectNoString(std::string(size, '\0'));
}

TEST(AParcel, HoldsSixteenMebibytesAndNotAByteMore) {
  const std::string text(kMaxContent - 5, 'x');
  const Message message(text);
  EXPECT_THAT(message.Bytes(), SizeIs(kMaxContent));
  EXPECT_EQ(rpc_port_parcel_write_bool(message.h, true), -12);
  EXPECT_EQ(rpc_port_parcel_write_int32(message.h, 1), -12);
  EXPECT_EQ(rpc_port_parcel_write_array_count(message.h, 1), -12);
  EXPECT_EQ(rpc_port_parcel_write_string(message.h, ""), -12);
  EXPECT_THAT(message.Bytes(), SizeIs(kMaxContent));
  EXPECT_EQ(message.Text(), text);
}

TEST(AParcel, RefusesAStringThatDoesNotFit) {
  const Message message;
  for (const size_t size : {kMaxContent - 4, kMaxContent - 1, kMaxContent, kMaxContent * 2}) {
    EXPECT_EQ(rpc_port_parcel_write_string(message.h, std::string(size, 'x').c_str()), -12);
  }
  EXPECT_EQ(message.Bytes(), "");
}

TEST(AParcel, TakesBytesAsItsContent) {
  const Message message("before");
  EXPECT_EQ(message.Text(), "before");
  const std::string bytes = Text("after");
  EXPECT_EQ(rpc_port_desktop_parcel_set_bytes(message.h, bytes.data(), bytes.size()), 0);
  EXPECT_EQ(message.Text(), "after");
  EXPECT_EQ(rpc_port_desktop_parcel_set_bytes(message.h, nullptr, 0), 0);
  EXPECT_EQ(message.Bytes(), "");
}

TEST(AParcel, TakesPartOfItsOwnContent) {
  const Message message("text");
  const void* bytes = nullptr;
  size_t size = 0;
  ASSERT_EQ(rpc_port_desktop_parcel_get_bytes(message.h, &bytes, &size), 0);
  EXPECT_EQ(rpc_port_desktop_parcel_set_bytes(message.h, static_cast<const char*>(bytes) + 4, 3),
            0);
  EXPECT_EQ(message.Bytes(), "tex");
}

TEST(AParcel, RefusesBytesThatDoNotFit) {
  const Message message("kept");
  const std::string bytes(kMaxContent + 1, 'x');
  EXPECT_EQ(rpc_port_desktop_parcel_set_bytes(message.h, bytes.data(), bytes.size()), -12);
  EXPECT_EQ(message.Text(), "kept");
  EXPECT_EQ(rpc_port_desktop_parcel_set_bytes(message.h, bytes.data(), bytes.size() - 1), 0);
}

TEST(AParcel, RefusesNull) {
  const Message message;
  int number = 0;
  bool flag = false;
  char* text = nullptr;
  const void* bytes = nullptr;
  size_t size = 0;
  EXPECT_EQ(rpc_port_parcel_create(nullptr), -22);
  EXPECT_EQ(rpc_port_parcel_destroy(nullptr), -22);
  EXPECT_EQ(rpc_port_parcel_write_int32(nullptr, 1), -22);
  EXPECT_EQ(rpc_port_parcel_write_bool(nullptr, true), -22);
  EXPECT_EQ(rpc_port_parcel_write_array_count(nullptr, 1), -22);
  EXPECT_EQ(rpc_port_parcel_write_string(nullptr, "a"), -22);
  EXPECT_EQ(rpc_port_parcel_write_string(message.h, nullptr), -22);
  EXPECT_EQ(rpc_port_parcel_read_int32(nullptr, &number), -22);
  EXPECT_EQ(rpc_port_parcel_read_int32(message.h, nullptr), -22);
  EXPECT_EQ(rpc_port_parcel_read_bool(nullptr, &flag), -22);
  EXPECT_EQ(rpc_port_parcel_read_bool(message.h, nullptr), -22);
  EXPECT_EQ(rpc_port_parcel_read_array_count(nullptr, &number), -22);
  EXPECT_EQ(rpc_port_parcel_read_array_count(message.h, nullptr), -22);
  EXPECT_EQ(rpc_port_parcel_read_string(nullptr, &text), -22);
  EXPECT_EQ(rpc_port_parcel_read_string(message.h, nullptr), -22);
  EXPECT_EQ(rpc_port_parcel_send(message.h, nullptr), -22);
  EXPECT_EQ(rpc_port_parcel_send(nullptr, nullptr), -22);
  rpc_port_parcel_h handle = nullptr;
  EXPECT_EQ(rpc_port_parcel_create_from_port(&handle, nullptr), -22);
  EXPECT_EQ(rpc_port_parcel_create_from_port(nullptr, nullptr), -22);
  EXPECT_EQ(rpc_port_desktop_parcel_get_bytes(nullptr, &bytes, &size), -22);
  EXPECT_EQ(rpc_port_desktop_parcel_get_bytes(message.h, nullptr, &size), -22);
  EXPECT_EQ(rpc_port_desktop_parcel_get_bytes(message.h, &bytes, nullptr), -22);
  EXPECT_EQ(rpc_port_desktop_parcel_set_bytes(nullptr, "a", 1), -22);
  EXPECT_EQ(rpc_port_desktop_parcel_set_bytes(message.h, nullptr, 1), -22);
  EXPECT_EQ(rpc_port_desktop_send_bytes(nullptr, "a", 1), -22);
  EXPECT_EQ(message.Bytes(), "");
}
