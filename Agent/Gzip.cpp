#include "Agent/Gzip.h"

#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <system_error>
#include <vector>

namespace OrloAgent {

namespace {

constexpr std::size_t kPiece = 256 * 1024;

// The format's own window, and 16 for the header and trailer of gzip.
constexpr int kGzipWindow = 15 + 16;
constexpr int kMemory = 8;

class Deflater {
 public:
  Deflater()
      : m_ok(deflateInit2(&m_stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindow, kMemory,
                          Z_DEFAULT_STRATEGY) == Z_OK) {}
  ~Deflater() {
    if (m_ok) {
      deflateEnd(&m_stream);
    }
  }
  Deflater(const Deflater&) = delete;
  Deflater& operator=(const Deflater&) = delete;

  bool IsOk() const { return m_ok; }

  // Compresses the bytes and writes what has come out of it; the last ones end the file.
  bool Write(std::vector<char>& bytes, std::size_t size, bool isLast, std::ostream& to) {
    m_stream.next_in = reinterpret_cast<Bytef*>(bytes.data());
    m_stream.avail_in = static_cast<uInt>(size);
    do {
      m_stream.next_out = reinterpret_cast<Bytef*>(m_output.data());
      m_stream.avail_out = static_cast<uInt>(m_output.size());
      if (deflate(&m_stream, isLast ? Z_FINISH : Z_NO_FLUSH) == Z_STREAM_ERROR) {
        return false;
      }
      to.write(m_output.data(), static_cast<std::streamsize>(m_output.size() - m_stream.avail_out));
    } while (m_stream.avail_out == 0 && to);
    return to.good();
  }

 private:
  z_stream m_stream{};
  const bool m_ok;
  std::vector<char> m_output = std::vector<char>(kPiece);
};

class Inflater {
 public:
  Inflater() : m_ok(inflateInit2(&m_stream, kGzipWindow) == Z_OK) {}
  ~Inflater() {
    if (m_ok) {
      inflateEnd(&m_stream);
    }
  }
  Inflater(const Inflater&) = delete;
  Inflater& operator=(const Inflater&) = delete;

  // Whether the bytes are the next ones of a file in gzip's format, which holds what comes next in
  // the other one.
  bool Compare(std::vector<char>& bytes, std::size_t size, std::istream& with) {
    m_stream.next_in = reinterpret_cast<Bytef*>(bytes.data());
    m_stream.avail_in = static_cast<uInt>(size);
    while (m_ok && !m_ended && m_stream.avail_in > 0) {
      m_stream.next_out = reinterpret_cast<Bytef*>(m_output.data());
      m_stream.avail_out = static_cast<uInt>(m_output.size());
      const int result = inflate(&m_stream, Z_NO_FLUSH);
      const auto count = static_cast<std::streamsize>(m_output.size() - m_stream.avail_out);
      with.read(m_expected.data(), count);
      if ((result != Z_OK && result != Z_STREAM_END) || with.gcount() != count ||
          !std::equal(m_output.begin(), m_output.begin() + count, m_expected.begin())) {
        return false;
      }
      m_ended = result == Z_STREAM_END;
    }
    return m_ok && m_stream.avail_in == 0;
  }

  // Its checksum and its length were there, and right.
  bool HasEnded() const { return m_ended; }

 private:
  z_stream m_stream{};
  const bool m_ok;
  bool m_ended = false;
  std::vector<char> m_output = std::vector<char>(kPiece);
  std::vector<char> m_expected = std::vector<char>(kPiece);
};

std::string ErrorText() {
  return errno != 0 ? std::generic_category().message(errno) : "unknown error";
}

}  // namespace

bool IsGzipAvailable() { return true; }

bool CompressFile(const std::filesystem::path& from, const std::filesystem::path& to,
                  const std::function<bool()>& isCancelled, std::string& problem) {
  problem.clear();
  errno = 0;
  std::ifstream input(from, std::ios::binary);
  std::ofstream output(to, std::ios::binary | std::ios::trunc);
  Deflater deflater;
  if (!input || !output || !deflater.IsOk()) {
    problem = ErrorText();
    return false;
  }
  // Before anything is in it: events can hold what not everybody is to read.
  std::error_code error;
  std::filesystem::permissions(to, std::filesystem::status(from, error).permissions(), error);
  if (error) {
    problem = error.message();
    return false;
  }
  std::vector<char> bytes(kPiece);
  for (;;) {
    input.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    const bool isLast = input.eof();
    if (input.bad() || (input.fail() && !isLast) ||
        !deflater.Write(bytes, static_cast<std::size_t>(input.gcount()), isLast, output)) {
      problem = ErrorText();
      return false;
    }
    if (isLast) {
      break;
    }
    if (isCancelled()) {
      return false;
    }
  }
  output.close();
  if (!output) {
    problem = ErrorText();
    return false;
  }
  return true;
}

bool HoldsCompressed(const std::filesystem::path& compressed, const std::filesystem::path& plain,
                     const std::function<bool()>& isCancelled) {
  std::ifstream packed(compressed, std::ios::binary);
  std::ifstream expected(plain, std::ios::binary);
  Inflater inflater;
  std::vector<char> bytes(kPiece);
  while (packed && expected && !isCancelled()) {
    packed.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    const auto size = static_cast<std::size_t>(packed.gcount());
    if (packed.bad() || !inflater.Compare(bytes, size, expected)) {
      return false;
    }
    if (packed.eof()) {
      return inflater.HasEnded() && expected.peek() == std::ifstream::traits_type::eof();
    }
  }
  return false;
}

}  // namespace OrloAgent
