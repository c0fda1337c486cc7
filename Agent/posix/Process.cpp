#include "Agent/Process.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <system_error>

namespace OrloAgent {

void PrepareProcess() {
  std::signal(SIGPIPE, SIG_IGN);
  // Each connection takes a descriptor; the usual soft limit is there for programs that use select.
  rlimit descriptors{};
  if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0) {
    descriptors.rlim_cur = descriptors.rlim_max;
    setrlimit(RLIMIT_NOFILE, &descriptors);
  }
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) < 0) {
      // Opened the wrong way round, so that its use fails as it would have failed before. It gets
      // the lowest free number, which is this one.
      [[maybe_unused]] const int opened =
          open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
  }
}

std::vector<std::string> GetArguments(int argc, char** argv) {
  return std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc);
}

std::filesystem::path GetProgramPath() {
  std::error_code error;
  std::filesystem::path path = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::filesystem::path() : path;
}

}  // namespace OrloAgent
