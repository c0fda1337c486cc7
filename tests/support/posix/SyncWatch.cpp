#include "tests/support/posix/SyncWatch.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>

namespace TestSupport {

namespace {

std::mutex watchLock;
// Guarded by it.
const SyncWatch::Answer* watching = nullptr;

int AnswerFor(int descriptor) {
  const std::lock_guard guard(watchLock);
  if (watching == nullptr) {
    return 0;
  }
  std::error_code error;
  return (*watching)(
      std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error));
}

}  // namespace

SyncWatch::SyncWatch(Answer answer) : m_answer(std::move(answer)) {
  const std::lock_guard guard(watchLock);
  watching = &m_answer;
}

SyncWatch::~SyncWatch() {
  const std::lock_guard guard(watchLock);
  watching = nullptr;
}

}  // namespace TestSupport

extern "C" int fsync(int descriptor) {
  try {
    if (const int error = TestSupport::AnswerFor(descriptor); error != 0) {
      errno = error;
      return -1;
    }
  } catch (const std::exception&) {
    errno = ENOMEM;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fsync, descriptor));
}
