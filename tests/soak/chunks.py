"""The event cache's files, read independently of the stage, after docs/event-cache.md."""

import dataclasses
import struct

# All chunks go through a buffer; a torn file is parsed over what it held. Sizes are multiples of
# this.
PAGE = 4096


@dataclasses.dataclass(frozen=True)
class Chunk:
    """One file: its name (minute/second) and its bytes."""
    name: str
    data: bytes

    def own_events(self):
        """Payloads of the events that are whole in the file itself."""
        return parse(self.data)[0]

    def is_complete(self):
        """All events that the count promises are there, and the padding behind them."""
        events, end = parse(self.data)
        if len(self.data) < 4 or len(events) != struct.unpack_from("<I", self.data)[0]:
            return False
        return len(self.data) == -(-end // PAGE) * PAGE and not any(self.data[end:])


def parse(data):
    """Payloads of the events from the start that lie within the bytes, and where they end."""
    if len(data) < 4:
        return [], 0
    count = struct.unpack_from("<I", data)[0]
    events = []
    end = offset = 4
    for _ in range(count):
        blocks = []
        for _ in range(2):
            if len(data) - offset < 4:
                return events, end
            length = struct.unpack_from("<I", data, offset)[0]
            if len(data) - offset - 4 < length:
                return events, end
            blocks.append(bytes(data[offset + 4:offset + 4 + length]))
            offset += 4 + length
        events.append(blocks[1])
        end = offset
    return events, end


def take_inventory(cache):
    """Every chunk file of the cache directory, in the order in which they will be read."""
    while True:
        try:
            files = sorted((path for path in cache.glob("*/*") if path.is_file()),
                           key=lambda path: (path.parent.name, path.name))
            return [Chunk(f"{path.parent.name}/{path.name}", path.read_bytes()) for path in files]
        except FileNotFoundError:
            pass  # a chunk or its directory went away meanwhile; the next look is without it


def read_back(chunks):
    """What a cache that only reads makes of the chunks: a list of payloads for each.

    A file is read to the start of one buffer and parsed as far as the buffer was ever filled, so
    a torn file goes on with what the chunks before it left there.
    """
    buffer = bytearray()
    result = []
    for chunk in chunks:
        buffer[:len(chunk.data)] = chunk.data
        result.append(parse(buffer)[0])
    return result
