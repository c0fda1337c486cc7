#include "WindowsAgentCommon/Exceptions.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace WindowsAgentCommon {
namespace {

template <typename Exception>
class ExceptionsTest : public testing::Test {};
using AllExceptions =
    testing::Types<OrloException, InitializationException, OrloStatisticsException>;
TYPED_TEST_SUITE(ExceptionsTest, AllExceptions);

TYPED_TEST(ExceptionsTest, TellsWhereItHappenedAndWhat) {
  const TypeParam exception("dir/File", "Class::Function", 42, "the disk is full");
  EXPECT_STREQ(exception.what(), "the disk is full");
  EXPECT_EQ(exception.GetText(), "the disk is full");
  EXPECT_EQ(exception.GetFile(), "dir/File");
  EXPECT_EQ(exception.GetFunction(), "Class::Function");
  EXPECT_EQ(exception.GetLine(), 42);
}

TYPED_TEST(ExceptionsTest, IsCaughtAsTheSystemsAndTheLanguagesBase) {
  EXPECT_THROW(throw TypeParam("f", "g", 1, "m"), OrloException);
  EXPECT_THROW(throw TypeParam("f", "g", 1, "m"), std::exception);
}

TEST(ExceptionKindsTest, AreToldApart) {
  EXPECT_FALSE((std::is_base_of_v<InitializationException, OrloStatisticsException>));
  EXPECT_FALSE((std::is_base_of_v<OrloStatisticsException, InitializationException>));
}

}  // namespace
}  // namespace WindowsAgentCommon
