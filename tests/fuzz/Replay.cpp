#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <vector>

#include "fuzz/FuzzTarget.h"

// Runs a fuzz target once with each file of the directories that are its arguments. A finding ends
// the process; the last file named is the one. A directory that does not exist is passed over, but
// there must be an input: a replay of nothing would go unseen.

namespace {

namespace fs = std::filesystem;

bool Replay(const fs::path& path) {
  std::cout << path.string() << std::endl;
  const auto size = static_cast<std::size_t>(fs::file_size(path));
  const auto bytes = std::make_unique<char[]>(size);
  std::ifstream file(path, std::ios::binary);
  if (!file.read(bytes.get(), static_cast<std::streamsize>(size))) {
    std::cerr << "can't be read\n";
    return false;
  }
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.get()), size);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    if (fs::is_directory(argv[i])) {
      for (const fs::directory_entry& entry : fs::directory_iterator(argv[i])) {
        inputs.push_back(entry.path());
      }
    }
  }
  std::sort(inputs.begin(), inputs.end());
  if (inputs.empty()) {
    std::cerr << "there are no inputs\n";
    return 1;
  }
  return std::all_of(inputs.begin(), inputs.end(), Replay) ? 0 : 1;
}
