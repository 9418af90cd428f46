// SPDX-License-Identifier: Apache-2.0
#include <bundle.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>

#include <string>
#include <vector>

namespace {

class ABundle : public testing::Test {
 protected:
  ~ABundle() override { bundle_free(b_); }

  void AddOneOfEach() {
    ASSERT_EQ(bundle_add_str(b_, "text", "words"), 0);
    ASSERT_EQ(bundle_add_byte(b_, "bytes", "\1\0\2", 3), 0);
    const char* texts[] = {"one", "", "three"};
    ASSERT_EQ(bundle_add_str_array(b_, "texts", texts, 3), 0);
  }

  bundle* b_ = bundle_create();
};

TEST_F(ABundle, GivesBackWhatWasAdded) {
  AddOneOfEach();
  char* text = nullptr;
  EXPECT_EQ(bundle_get_str(b_, "text", &text), 0);
  EXPECT_STREQ(text, "words");
  void* bytes = nullptr;
  size_t size = 0;
  EXPECT_EQ(bundle_get_byte(b_, "bytes", &bytes, &size), 0);
  ASSERT_EQ(size, 3u);
  EXPECT_EQ(memcmp(bytes, "\1\0\2", 3), 0);
  int count = 0;
  const char** texts = bundle_get_str_array(b_, "texts", &count);
  ASSERT_EQ(count, 3);
  EXPECT_STREQ(texts[0], "one");
  EXPECT_STREQ(texts[1], "");
  EXPECT_STREQ(texts[2], "three");
}

TEST_F(ABundle, CopiesWhatIsAdded) {
  char text[] = "before";
  char element[] = "before";
  const char* texts[] = {element};
  ASSERT_EQ(bundle_add_str(b_, "text", text), 0);
  ASSERT_EQ(bundle_add_byte(b_, "bytes", text, sizeof text), 0);
  ASSERT_EQ(bundle_add_str_array(b_, "texts", texts, 1), 0);
  strcpy(text, "after");
  strcpy(element, "after");
  texts[0] = nullptr;

  char* got = nullptr;
  void* bytes = nullptr;
  size_t size = 0;
  int count = 0;
  EXPECT_EQ(bundle_get_str(b_, "text", &got), 0);
  EXPECT_STREQ(got, "before");
  EXPECT_EQ(bundle_get_byte(b_, "bytes", &bytes, &size), 0);
  EXPECT_STREQ(static_cast<char*>(bytes), "before");
  EXPECT_STREQ(bundle_get_str_array(b_, "texts", &count)[0], "before");
}

TEST_F(ABundle, LeavesTheOutputsUntouchedWhenTheKeyIsAbsentOrOfAnotherType) {
  AddOneOfEach();
  int mark = 0;
  for (const char* key : {"absent", "bytes", "texts"}) {
    auto* text = reinterpret_cast<char*>(&mark);
    EXPECT_LT(bundle_get_str(b_, key, &text), 0) << key;
    EXPECT_EQ(text, reinterpret_cast<char*>(&mark)) << key;
  }
  for (const char* key : {"absent", "text", "texts"}) {
    void* bytes = &mark;
    size_t size = 77;
    EXPECT_LT(bundle_get_byte(b_, key, &bytes, &size), 0) << key;
    EXPECT_EQ(bytes, &mark) << key;
    EXPECT_EQ(size, 77u) << key;
  }
  for (const char* key : {"absent", "text", "bytes"}) {
    int count = 77;
    EXPECT_EQ(bundle_get_str_array(b_, key, &count), nullptr) << key;
    EXPECT_EQ(count, 77) << key;
  }
}

TEST_F(ABundle, TellsAnAbsentKeyFromOneOfAnotherType) {
  AddOneOfEach();
  char* text = nullptr;
  EXPECT_EQ(bundle_get_str(b_, "absent", &text), -126);
  EXPECT_EQ(bundle_get_str(b_, "bytes", &text), -22);
}

TEST_F(ABundle, RefusesAKeyThatExistsWhateverItsType) {
  AddOneOfEach();
  const char* texts[] = {"other"};
  for (const char* key : {"text", "bytes", "texts"}) {
    EXPECT_EQ(bundle_add_str(b_, key, "other"), -17) << key;
    EXPECT_EQ(bundle_add_byte(b_, key, "other", 5), -17) << key;
    EXPECT_EQ(bundle_add_str_array(b_, key, texts, 1), -17) << key;
  }
  char* text = nullptr;
  EXPECT_EQ(bundle_get_str(b_, "text", &text), 0);
  EXPECT_STREQ(text, "words");
}

TEST_F(ABundle, KeepsWhatItHasLentOutWhileOtherKeysAreRead) {
  AddOneOfEach();
  char* text = nullptr;
  char* again = nullptr;
  int count = 0;
  ASSERT_EQ(bundle_get_str(b_, "text", &text), 0);
  const char** texts = bundle_get_str_array(b_, "texts", &count);
  ASSERT_EQ(bundle_get_str(b_, "text", &again), 0);
  EXPECT_EQ(text, again);
  EXPECT_EQ(bundle_get_str_array(b_, "texts", &count), texts);
  EXPECT_STREQ(text, "words");
}

TEST_F(ABundle, HoldsValuesOfAnySize) {
  const std::string large(3 << 20, 'x');
  ASSERT_EQ(bundle_add_byte(b_, "none", nullptr, 0), 0);
  ASSERT_EQ(bundle_add_byte(b_, "large", large.data(), large.size()), 0);
  ASSERT_EQ(bundle_add_str(b_, "empty", ""), 0);
  ASSERT_EQ(bundle_add_str_array(b_, "no texts", nullptr, 0), 0);
  void* bytes = nullptr;
  size_t size = 77;
  EXPECT_EQ(bundle_get_byte(b_, "none", &bytes, &size), 0);
  EXPECT_NE(bytes, nullptr);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(bundle_get_byte(b_, "large", &bytes, &size), 0);
  EXPECT_EQ(std::string(static_cast<char*>(bytes), size), large);
  char* text = nullptr;
  EXPECT_EQ(bundle_get_str(b_, "empty", &text), 0);
  EXPECT_STREQ(text, "");
  int count = 77;
  EXPECT_NE(bundle_get_str_array(b_, "no texts", &count), nullptr);
  EXPECT_EQ(count, 0);
}

TEST_F(ABundle, RefusesNullArguments) {
  AddOneOfEach();
  char* text = nullptr;
  void* bytes = nullptr;
  size_t size = 0;
  int count = 0;
  const char* texts[] = {"one", nullptr};
  EXPECT_EQ(bundle_free(nullptr), -22);
  EXPECT_EQ(bundle_add_str(nullptr, "k", "v"), -22);
  EXPECT_EQ(bundle_add_str(b_, nullptr, "v"), -22);
  EXPECT_EQ(bundle_add_str(b_, "", "v"), -22);
  EXPECT_EQ(bundle_add_str(b_, "k", nullptr), -22);
  EXPECT_EQ(bundle_add_byte(nullptr, "k", "v", 1), -22);
  EXPECT_EQ(bundle_add_byte(b_, nullptr, "v", 1), -22);
  EXPECT_EQ(bundle_add_byte(b_, "k", nullptr, 1), -22);
  EXPECT_EQ(bundle_add_str_array(nullptr, "k", texts, 1), -22);
  EXPECT_EQ(bundle_add_str_array(b_, nullptr, texts, 1), -22);
  EXPECT_EQ(bundle_add_str_array(b_, "k", nullptr, 1), -22);
  EXPECT_EQ(bundle_add_str_array(b_, "k", texts, 2), -22);
  EXPECT_EQ(bundle_add_str_array(b_, "k", texts, -1), -22);
  EXPECT_EQ(bundle_add_str_array(b_, "k", texts, INT_MIN), -22);
  EXPECT_EQ(bundle_get_str(nullptr, "text", &text), -22);
  EXPECT_EQ(bundle_get_str(b_, nullptr, &text), -22);
  EXPECT_EQ(bundle_get_str(b_, "text", nullptr), -22);
  EXPECT_EQ(bundle_get_byte(nullptr, "bytes", &bytes, &size), -22);
  EXPECT_EQ(bundle_get_byte(b_, nullptr, &bytes, &size), -22);
  EXPECT_EQ(bundle_get_byte(b_, "bytes", nullptr, &size), -22);
  EXPECT_EQ(bundle_get_byte(b_, "bytes", &bytes, nullptr), -22);
  EXPECT_EQ(bundle_get_str_array(nullptr, "texts", &count), nullptr);
  EXPECT_EQ(bundle_get_str_array(b_, nullptr, &count), nullptr);
  EXPECT_EQ(bundle_get_str_array(b_, "texts", nullptr), nullptr);
  // None of the refused values was added.
  EXPECT_EQ(bundle_get_str(b_, "k", &text), -126);
}

}  // namespace
