#include "Agent/Process.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <system_error>

namespace OrloAgent {

namespace {

bool HasTerminal() {
  const int terminal = open("/dev/tty", O_RDONLY | O_NOCTTY | O_CLOEXEC);
  if (terminal >= 0) {
    close(terminal);
  }
  return terminal >= 0;
}

bool hadTerminal = false;

}  // namespace

void PrepareProcess() {
  hadTerminal = HasTerminal();
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

std::filesystem::path GetProgramPath() {
  std::error_code error;
  std::filesystem::path path = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::filesystem::path() : path;
}

const std::vector<int>& GetSignals() {
  static const std::vector<int> signals{SIGINT, SIGTERM, SIGHUP};
  return signals;
}

// A hang-up asks a service to read its files again, and tells a program that its terminal has
// ended. Then it is to stop, in good order.
bool IsReload(int signal) { return signal == SIGHUP && (!hadTerminal || HasTerminal()); }

}  // namespace OrloAgent
