#pragma once

#include <ace/Message_Block.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace TestSupport {

// An event: a head block whose continuation carries the payload.
ACE_Message_Block* MakeEvent(const std::string& head, const std::string& payload);

// `count` events with the payloads "<prefix>0", "<prefix>1", ...
std::vector<ACE_Message_Block*> MakeEvents(std::size_t count, const std::string& prefix = "event ");

std::string HeadOf(const ACE_Message_Block* event);
std::string PayloadOf(const ACE_Message_Block* event);
std::vector<std::string> PayloadsOf(const std::vector<ACE_Message_Block*>& events);

void ReleaseAll(std::vector<ACE_Message_Block*>& events);

// Looks every few milliseconds until the condition holds or the time is over; says which.
bool WaitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds limit = std::chrono::seconds(60));

}  // namespace TestSupport
