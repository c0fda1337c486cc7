#include <string>
#include <string_view>

#include "Agent/EventHeader.h"
#include "fuzz/FuzzTarget.h"

// The input is the head of an event, as a damaged chunk file may hold it.

using Fuzz::Require;
using OrloAgent::EventHeader;
using OrloAgent::EventHeaderTemplate;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const auto header = OrloAgent::ParseEventHeader(bytes);
  if (!header) {
    return 0;
  }
  Require((header->flags & ~OrloAgent::EventFlags::kAll) == 0, "every flag is one that is known");
  Require(header->source.size() < size, "the source is a part of the header");
  Require(header->source.empty() ||
              header->source.data() + header->source.size() == bytes.data() + bytes.size(),
          "nothing follows the source");

  // Written anew, it is the same bytes, or, of the earlier layout, another header that says the
  // same.
  const EventHeaderTemplate written(header->origin, header->source);
  std::string again(written.GetSize(), '?');
  written.Write(again.data(), header->flags, header->receiveTime);
  constexpr unsigned char kVersion1 = 1;
  Require(data[0] == kVersion1 || again == bytes, "the same header has the same bytes");
  const auto read = OrloAgent::ParseEventHeader(again);
  Require(
      read && read->flags == header->flags && read->DescribeSource() == header->DescribeSource(),
      "what is written is read back");
  return 0;
}
