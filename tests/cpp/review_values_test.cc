// SPDX-License-Identifier: Apache-2.0
// Values: views that must not outlive what they show, and codes that nobody knows.
#include <sstream>
#include <type_traits>
#include <utility>

#include "face_support.h"

namespace {

namespace vs = velmora::svcmgr;

template <typename T, typename = void>
struct HasView : std::false_type {};
template <typename T>
struct HasView<T, std::void_t<decltype(std::declval<T>().view())>> : std::true_type {};

TEST(AText, GivesAViewOnlyWhereItOutlivesTheExpression) {
  EXPECT_TRUE(HasView<const vs::Text&>::value);
  EXPECT_FALSE(HasView<vs::Text>::value) << "model.Read(field).view() dangles";
}

TEST(AnError, ThatIsUnknownIsPrintedWithItsCode) {
  std::ostringstream text;
  text << vs::Error(-999);
  EXPECT_THAT(text.str(), testing::HasSubstr("-999"));
}

}  // namespace
