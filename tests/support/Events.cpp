#include "tests/support/Events.h"

#include <stdexcept>
#include <thread>

#include "WindowsAgentCommon/MessageBlocks.h"

namespace TestSupport {

namespace {

ACE_Message_Block* MakeBlock(const std::string& bytes) {
  ACE_Message_Block* block = nullptr;
  if (WindowsAgentCommon::CreateDataMessageBlock(bytes.size(), block) != 0) {
    throw std::runtime_error("no memory for a message block");
  }
  block->copy(bytes.data(), bytes.size());
  return block;
}

std::string BytesOf(const ACE_Message_Block* block) {
  return std::string(block->rd_ptr(), block->length());
}

}  // namespace

ACE_Message_Block* MakeEvent(const std::string& head, const std::string& payload) {
  ACE_Message_Block* const event = MakeBlock(head);
  event->cont(MakeBlock(payload));
  return event;
}

std::vector<ACE_Message_Block*> MakeEvents(std::size_t count, const std::string& prefix) {
  std::vector<ACE_Message_Block*> events;
  for (std::size_t i = 0; i < count; ++i) {
    events.push_back(MakeEvent("head", prefix + std::to_string(i)));
  }
  return events;
}

std::string HeadOf(const ACE_Message_Block* event) { return BytesOf(event); }

std::string PayloadOf(const ACE_Message_Block* event) { return BytesOf(event->cont()); }

std::vector<std::string> PayloadsOf(const std::vector<ACE_Message_Block*>& events) {
  std::vector<std::string> payloads;
  for (const ACE_Message_Block* event : events) {
    payloads.push_back(PayloadOf(event));
  }
  return payloads;
}

void ReleaseAll(std::vector<ACE_Message_Block*>& events) {
  for (ACE_Message_Block* event : events) {
    event->release();
  }
  events.clear();
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return condition();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace TestSupport
