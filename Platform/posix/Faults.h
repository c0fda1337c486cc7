#pragma once

#include "Platform/testing/TestFaults.h"

namespace Platform {

// Asked by every file call once its arguments are accepted, before the operating system is called.
// One atomic load unless a test has used TestFaults.
TestFaults::Fault AskFault(TestFaults::FileCall call);

}  // namespace Platform
