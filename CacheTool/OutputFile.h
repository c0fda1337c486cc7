#pragma once

#include <array>
#include <filesystem>
#include <ostream>
#include <streambuf>
#include <string>

#include "Agent/AppendFile.h"

namespace OrloCacheTool {

// What an export is written to instead of the standard output: a file that is made for it, or a
// pipe or a device that is there, such as /dev/stdout. Nothing is written over another file, which
// may be a chunk. Unless Keep was called, a file that was made is gone when the object ends: else
// the command, once corrected, would be refused.
class OutputFile {
 public:
  // Throws ToolError.
  explicit OutputFile(const std::filesystem::path& path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Fails when not all can be written.
  std::ostream& Stream() { return m_stream; }

  // Writes what is left, and the file stays. Throws ToolError.
  void Keep();

 private:
  // Gathers what a file is written with.
  class Buffer : public std::streambuf {
   public:
    explicit Buffer(OrloAgent::AppendFile& file);

   protected:
    int_type overflow(int_type character) override;
    int sync() override;

   private:
    void Empty();

    OrloAgent::AppendFile& m_file;
    std::array<char, 64 * 1024> m_bytes{};
  };

  const std::filesystem::path m_path;
  OrloAgent::AppendFile m_file;
  Buffer m_buffer{m_file};
  std::ostream m_stream{&m_buffer};
  bool m_isNotKept = false;
};

}  // namespace OrloCacheTool
