#include "tests/support/LocalTimeZone.h"

#include <cstdlib>

#include "Platform/Windows.h"

namespace TestSupport {

LocalTimeZone::LocalTimeZone(const std::string& zone) {
  _putenv_s("TZ", zone.c_str());
  _tzset();
}

LocalTimeZone::~LocalTimeZone() {
  _putenv_s("TZ", "");
  _tzset();
}

}  // namespace TestSupport
