#pragma once

#include <string>

namespace TestSupport {

// While it lives, the C library's local time is that of the zone. One at a time, and no other
// thread may ask for local time meanwhile.
class LocalTimeZone {
 public:
  // As the variable TZ has it.
  explicit LocalTimeZone(const std::string& zone);
  ~LocalTimeZone();
  LocalTimeZone(const LocalTimeZone&) = delete;
  LocalTimeZone& operator=(const LocalTimeZone&) = delete;
};

}  // namespace TestSupport
