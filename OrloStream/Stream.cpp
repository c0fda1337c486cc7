#include "OrloStream/Stream.h"

#include <utility>

namespace OrloStream {

IStreamSource::~IStreamSource() = default;

Stream::Stream(std::wstring name)
    : m_name(std::move(name)), m_stream(std::make_unique<ACE_Stream<ACE_MT_SYNCH>>()) {}

Stream::~Stream() {
  m_sources.clear();
  m_stream->close();
}

Status Stream::Post(ACE_Message_Block* block) { return Status::FromInt(m_stream->put(block)); }

}  // namespace OrloStream
