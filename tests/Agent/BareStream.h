#pragma once

#include <memory>
#include <string>
#include <utility>

#include "OrloStream/StreamManager.h"

namespace TestSupport {

// A stream without stages: what is posted to it is put into the destination at once.
inline OrloStream::StreamDefinition BareStream(
    std::unique_ptr<WindowsAgentCommon::OrloTask> destination, std::wstring name = L"S") {
  OrloStream::StreamDefinition definition;
  definition.name = std::move(name);
  definition.destination = std::move(destination);
  return definition;
}

}  // namespace TestSupport
