#include "CacheTool/OutputFile.h"

#include "Agent/PathText.h"
#include "CacheTool/ToolError.h"

namespace OrloCacheTool {

namespace fs = std::filesystem;
using OrloAgent::ToText;

OutputFile::Buffer::Buffer(OrloAgent::AppendFile& file) : m_file(file) { Empty(); }

void OutputFile::Buffer::Empty() { setp(m_bytes.data(), m_bytes.data() + m_bytes.size()); }

OutputFile::Buffer::int_type OutputFile::Buffer::overflow(int_type character) {
  if (sync() != 0) {
    return traits_type::eof();
  }
  if (!traits_type::eq_int_type(character, traits_type::eof())) {
    sputc(traits_type::to_char_type(character));
  }
  return traits_type::not_eof(character);
}

int OutputFile::Buffer::sync() {
  const OrloAgent::AppendFile::Written written =
      m_file.Write({pbase(), static_cast<std::size_t>(pptr() - pbase())});
  Empty();
  return written.problem.empty() ? 0 : -1;
}

OutputFile::OutputFile(const fs::path& path) : m_path(path), m_file(ToText(path)) {
  std::string problem = m_file.OpenNew();
  if (problem.empty()) {
    m_isNotKept = true;
    return;
  }
  std::error_code ignored;
  const fs::file_status there = fs::status(m_path, ignored);
  if (fs::is_fifo(there) || fs::is_character_file(there)) {
    problem = m_file.Open();
  } else if (fs::exists(fs::symlink_status(m_path, ignored))) {
    throw ToolError(ToText(m_path) + " exists already; nothing is written over it");
  }
  if (!problem.empty()) {
    throw ToolError(ToText(m_path) + " can't be written: " + problem);
  }
}

OutputFile::~OutputFile() {
  m_file.Close();
  if (m_isNotKept) {
    std::error_code ignored;
    fs::remove(m_path, ignored);
  }
}

void OutputFile::Keep() {
  m_stream.flush();
  if (!m_stream) {
    throw ToolError(ToText(m_path) + " can't be written to its end");
  }
  m_isNotKept = false;
}

}  // namespace OrloCacheTool
