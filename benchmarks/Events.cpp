#include "benchmarks/Events.h"

#include <cstring>
#include <new>

#include "WindowsAgentCommon/MessageBlocks.h"

namespace Benchmark {

using WindowsAgentCommon::MessageBlockPtr;

namespace {

MessageBlockPtr MakeBlock(std::size_t size) {
  ACE_Message_Block* block = nullptr;
  if (WindowsAgentCommon::CreateDataMessageBlock(size, block) != 0) {
    throw std::bad_alloc();
  }
  std::memset(block->wr_ptr(), 'x', size);
  block->wr_ptr(size);
  return MessageBlockPtr(block);
}

}  // namespace

MessageBlockPtr MakeEvent(std::uint64_t number, std::size_t payloadSize) {
  MessageBlockPtr event = MakeBlock(kHeadSize);
  std::memcpy(event->rd_ptr(), &number, sizeof number);
  event->cont(MakeBlock(payloadSize).release());
  return event;
}

std::uint64_t GetNumber(const ACE_Message_Block& event) {
  std::uint64_t number = 0;
  std::memcpy(&number, event.rd_ptr(), sizeof number);
  return number;
}

}  // namespace Benchmark
