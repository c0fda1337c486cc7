#include "CacheTool/System.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "Agent/PathText.h"
#include "CacheTool/ToolError.h"

namespace OrloCacheTool {

namespace {

constexpr uid_t kRoot = 0;

struct Owner {
  uid_t user;
  gid_t group;
};

// Root owns the directory that the data directory lies in, so nobody can have put another one in
// its place; what lies in it may be a link, whose owner is whoever made it. Nothing if all of it is
// root's.
std::optional<Owner> FindOwner(const CachePlace& place) {
  struct stat status {};
  if (!place.data.empty()) {
    for (const auto& path : {place.data, place.cache.parent_path()}) {
      if (lstat(path.c_str(), &status) == 0 && status.st_uid != kRoot) {
        return Owner{status.st_uid, status.st_gid};
      }
    }
  }
  // Last what a link of root's leads to.
  for (const auto look : {lstat, stat}) {
    if (look(place.cache.c_str(), &status) == 0 && status.st_uid != kRoot) {
      return Owner{status.st_uid, status.st_gid};
    }
  }
  return std::nullopt;
}

}  // namespace

bool IsErrorTerminal() { return isatty(STDERR_FILENO) != 0; }

struct OwnersRights::Own {
  gid_t group = getegid();
  std::vector<gid_t> groups;

  Own() : groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0))) {
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(count, 0)));
  }

  // Without them there is less that can be done, and no more.
  ~Own() {
    [[maybe_unused]] const bool isBack =
        seteuid(kRoot) == 0 && setegid(group) == 0 && setgroups(groups.size(), groups.data()) == 0;
  }

  Own(const Own&) = delete;
  Own& operator=(const Own&) = delete;
};

OwnersRights::OwnersRights(const CachePlace& place) {
  const auto owner = geteuid() == kRoot ? FindOwner(place) : std::nullopt;
  if (!owner) {
    return;
  }
  m_own = std::make_unique<Own>();
  const std::string cache = OrloAgent::ToText(place.cache);
  if (setgroups(1, &owner->group) != 0 || setegid(owner->group) != 0 || seteuid(owner->user) != 0) {
    throw ToolError("The rights of the owner of " + cache +
                    " can't be taken: " + std::generic_category().message(errno));
  }
  std::error_code error;
  if (!std::filesystem::is_directory(place.cache, error)) {
    throw ToolError(cache + " can't be reached with the rights of its owner, user " +
                    std::to_string(owner->user) + ", with which root changes it" +
                    (error ? ": " + error.message() : ""));
  }
}

OwnersRights::~OwnersRights() = default;

}  // namespace OrloCacheTool
