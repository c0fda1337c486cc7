#include "tests/support/LocalTimeZone.h"

#include <cstdlib>
#include <ctime>

namespace TestSupport {

LocalTimeZone::LocalTimeZone(const std::string& zone) {
  setenv("TZ", zone.c_str(), 1);
  tzset();
}

LocalTimeZone::~LocalTimeZone() {
  unsetenv("TZ");
  tzset();
}

}  // namespace TestSupport
