#pragma once

#include <ace/Message_Block.h>

#include <memory>

namespace WindowsAgentCommon {

struct MessageBlockReleaser {
  void operator()(ACE_Message_Block* block) const { block->release(); }
};

// Owns one reference to a message block and its continuations, and gives it up with release().
using MessageBlockPtr = std::unique_ptr<ACE_Message_Block, MessageBlockReleaser>;

}  // namespace WindowsAgentCommon
