// SPDX-License-Identifier: Apache-2.0
// Bundles as bytes, which may come from anybody.

#include <bundle.h>
#include <bundle_desktop.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>

#include "owned.h"

namespace {

using BundlePtr = base::Owned<bundle, bundle_free>;

BundlePtr OneOfEach() {
  BundlePtr b(bundle_create());
  const char* texts[] = {"one", "", "dr\xc3\xa9i"};
  EXPECT_EQ(bundle_add_str(b.get(), "text", "words"), 0);
  EXPECT_EQ(bundle_add_str(b.get(), "empty", ""), 0);
  EXPECT_EQ(bundle_add_byte(b.get(), "bytes", "\1\0\2", 3), 0);
  EXPECT_EQ(bundle_add_byte(b.get(), "none", nullptr, 0), 0);
  EXPECT_EQ(bundle_add_str_array(b.get(), "texts", texts, 3), 0);
  EXPECT_EQ(bundle_add_str_array(b.get(), "no texts", nullptr, 0), 0);
  return b;
}

std::string Encoded(bundle* b) {
  unsigned char* bytes = nullptr;
  size_t size = 0;
  EXPECT_EQ(bundle_desktop_encode(b, &bytes, &size), 0);
  std::string copy(reinterpret_cast<char*>(bytes), size);
  free(bytes);
  return copy;
}

BundlePtr Decoded(const std::string& bytes) {
  return BundlePtr(
      bundle_desktop_decode(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()));
}

TEST(AnEncodedBundle, ComesBackWhole) {
  const BundlePtr back = Decoded(Encoded(OneOfEach().get()));
  ASSERT_NE(back, nullptr);
  char* text = nullptr;
  void* bytes = nullptr;
  size_t size = 77;
  int count = 77;
  EXPECT_EQ(bundle_get_str(back.get(), "text", &text), 0);
  EXPECT_STREQ(text, "words");
  EXPECT_EQ(bundle_get_str(back.get(), "empty", &text), 0);
  EXPECT_STREQ(text, "");
  EXPECT_EQ(bundle_get_byte(back.get(), "bytes", &bytes, &size), 0);
  EXPECT_EQ(std::string(static_cast<char*>(bytes), size), std::string("\1\0\2", 3));
  EXPECT_EQ(bundle_get_byte(back.get(), "none", &bytes, &size), 0);
  EXPECT_EQ(size, 0u);
  const char** texts = bundle_get_str_array(back.get(), "texts", &count);
  ASSERT_EQ(count, 3);
  EXPECT_STREQ(texts[2], "dr\xc3\xa9i");
  EXPECT_NE(bundle_get_str_array(back.get(), "no texts", &count), nullptr);
  EXPECT_EQ(count, 0);
}

TEST(AnEncodedBundle, MayBeEmpty) {
  const BundlePtr b(bundle_create());
  const std::string bytes = Encoded(b.get());
  EXPECT_EQ(bytes, "");
  EXPECT_NE(Decoded(bytes), nullptr);
  EXPECT_NE(BundlePtr(bundle_desktop_decode(nullptr, 0)), nullptr);
}

TEST(AnEncodedBundle, HasTheSameBytesOnEveryMachine) {
  const BundlePtr b(bundle_create());
  ASSERT_EQ(bundle_add_str(b.get(), "key", "value"), 0);
  EXPECT_EQ(Encoded(b.get()), std::string("key\0\0\0\0\0value\0\0s\4\21", 18));
}

TEST(AnEncodedBundle, CannotHoldTextsThatAreNotUtf8) {
  const char* texts[] = {"fine", "\xff"};
  for (int kind = 0; kind < 3; ++kind) {
    const BundlePtr b(bundle_create());
    ASSERT_EQ(kind == 0   ? bundle_add_str(b.get(), "key", "\xc3")
              : kind == 1 ? bundle_add_str(b.get(), "\xff", "text")
                          : bundle_add_str_array(b.get(), "key", texts, 2),
              0);
    unsigned char* bytes = nullptr;
    size_t size = 77;
    EXPECT_EQ(bundle_desktop_encode(b.get(), &bytes, &size), -22);
    EXPECT_EQ(bytes, nullptr);
    EXPECT_EQ(size, 77u);
  }
}

TEST(AnEncodedBundle, IsRefusedWhenItIsCutAnywhere) {
  const std::string bytes = Encoded(OneOfEach().get());
  for (size_t size = 1; size < bytes.size(); ++size) {
    EXPECT_EQ(Decoded(bytes.substr(0, size)), nullptr) << size;
  }
  EXPECT_EQ(Decoded(bytes + '\0'), nullptr);
}

// One entry with a text and a key of at most seven characters; and the framing of two of them.
std::string Entry(const std::string& key) {
  std::string entry = key + '\0';
  entry.resize(8);
  return entry + std::string("value\0\0s", 8) + static_cast<char>(key.size() + 1);
}
std::string TwoEntries(const std::string& one, const std::string& two) {
  std::string bytes = one;
  bytes.resize(24);
  return bytes + two + static_cast<char>(one.size()) + static_cast<char>(24 + two.size());
}

TEST(AnEncodedBundle, IsRefusedWithAKeyTwice) {
  EXPECT_NE(Decoded(TwoEntries(Entry("one"), Entry("two"))), nullptr);
  EXPECT_EQ(Decoded(TwoEntries(Entry("one"), Entry("one"))), nullptr);
}

TEST(AnEncodedBundle, IsRefusedWithAnEmptyKey) {
  EXPECT_NE(Decoded(Entry("k") + '\21'), nullptr);
  EXPECT_EQ(Decoded(Entry("") + '\21'), nullptr);
}

TEST(AnEncodedBundle, IsRefusedWithAValueOfAnotherType) {
  std::string bytes = Entry("key") + '\21';
  EXPECT_NE(Decoded(bytes), nullptr);
  bytes.replace(8, 8, std::string("/value\0o", 8));
  EXPECT_EQ(Decoded(bytes), nullptr);
}

TEST(AnEncodedBundle, IsRefusedWithATextThatIsNotUtf8OrHoldsNul) {
  const BundlePtr b(bundle_create());
  ASSERT_EQ(bundle_add_str(b.get(), "key", "value"), 0);
  const std::string bytes = Encoded(b.get());
  for (const char evil : {'\xff', '\0'}) {
    std::string text = bytes;
    text[text.find("value") + 1] = evil;
    EXPECT_EQ(Decoded(text), nullptr);
    std::string key = bytes;
    key[1] = evil;
    EXPECT_EQ(Decoded(key), nullptr);
  }
}

TEST(AnEncodedBundle, NeverHarmsItsReaderWhateverItHolds) {
  std::mt19937 random(20240229);
  const std::string whole = Encoded(OneOfEach().get());
  for (int round = 0; round < 20000; ++round) {
    std::string bytes = whole;
    for (unsigned change = random() % 8; change > 0; --change) {
      bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    bytes.resize(random() % (bytes.size() + 8));
    // What is accepted can be written again.
    if (const BundlePtr back = Decoded(bytes)) Encoded(back.get());
  }
}

TEST(AnEncodedBundle, OfDeepNestingIsRefusedSoon) {
  // A value in a value in a value ...
  std::string bytes("key\0\0\0\0\0", 8);
  bytes += "x";
  for (int depth = 0; depth < 100000; ++depth) bytes += std::string("\0v", 2);
  EXPECT_EQ(Decoded(bytes + '\4'), nullptr);
}

TEST(AnEncodedBundle, RefusesNullArguments) {
  const BundlePtr b(bundle_create());
  unsigned char* bytes = nullptr;
  size_t size = 0;
  EXPECT_EQ(bundle_desktop_encode(nullptr, &bytes, &size), -22);
  EXPECT_EQ(bundle_desktop_encode(b.get(), nullptr, &size), -22);
  EXPECT_EQ(bundle_desktop_encode(b.get(), &bytes, nullptr), -22);
  EXPECT_EQ(bundle_desktop_decode(nullptr, 1), nullptr);
}

}  // namespace
