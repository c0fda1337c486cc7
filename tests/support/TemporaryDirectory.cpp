#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <random>
#include <stdexcept>

namespace TestSupport {

TemporaryDirectory::TemporaryDirectory() {
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    m_path = std::filesystem::temp_directory_path() /
             ("orlo-test-" + std::to_string(random()) + "-" + std::to_string(random()));
    if (std::filesystem::create_directory(m_path)) {
      return;
    }
  }
  throw std::runtime_error("no temporary directory could be made");
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

std::wstring TemporaryDirectory::WidePath() const {
  std::wstring path = m_path.wstring();
  std::replace(path.begin(), path.end(), L'/', L'\\');
  return path + L"\\";
}

}  // namespace TestSupport
