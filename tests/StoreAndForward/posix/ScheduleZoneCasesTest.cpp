#include "tests/StoreAndForward/ScheduleZoneCases.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "tests/support/LocalTimeZone.h"

namespace OrloStoreAndForward {
namespace {

class ScheduleZoneCases : public testing::TestWithParam<ZoneCase> {};

TEST_P(ScheduleZoneCases, EveryMinuteHasTheOffsetOfTheCLibrary) {
  const TestSupport::LocalTimeZone zone(GetParam().zone);
  constexpr std::int64_t kTwoWeeks = 14 * 86400;
  for (std::int64_t time = GetParam().start; time < GetParam().start + kTwoWeeks; time += 60) {
    const auto seconds = static_cast<std::time_t>(time);
    std::tm local{};
    localtime_r(&seconds, &local);
    ASSERT_EQ(local.tm_gmtoff, GetParam().MinutesAt(time) * 60) << time;
  }
}

INSTANTIATE_TEST_SUITE_P(Zones, ScheduleZoneCases, testing::ValuesIn(kZoneCases),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace OrloStoreAndForward
