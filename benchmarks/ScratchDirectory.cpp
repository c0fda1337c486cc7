#include "benchmarks/ScratchDirectory.h"

#include <random>
#include <system_error>

#include "WindowsAgentCommon/Text.h"

namespace Benchmark {

ScratchDirectory::ScratchDirectory() {
  std::random_device random;
  do {
    m_path = std::filesystem::temp_directory_path() /
             WindowsAgentCommon::Format("orlo-benchmark-%08x%08x", random(), random());
  } while (!std::filesystem::create_directory(m_path));
  m_widePath = WindowsAgentCommon::ToWide(m_path.string()) + L"\\";
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

}  // namespace Benchmark
