#include "Agent/Gzip.h"

#include <zlib.h>

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

}  // namespace OrloAgent
