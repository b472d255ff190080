#include <kestrova/platform/linux/screen/PrivateFolder.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace kestrova {
namespace {

constexpr mode_t ownerOnly = 0700;
constexpr std::size_t longestGroup = 64;

/// A real folder, of this user, and nobody else may do anything in it.
bool isPrivate(const std::string& folder) {
  struct stat found {};
  return ::lstat(folder.c_str(), &found) == 0 && S_ISDIR(found.st_mode) &&
         found.st_uid == ::geteuid() && (found.st_mode & 07777 & ~ownerOnly) == 0;
}

bool makePrivate(const std::string& folder) {
  return (::mkdir(folder.c_str(), ownerOnly) == 0 || errno == EEXIST) && isPrivate(folder);
}

}  // namespace

std::optional<std::string> privateFolder() {
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR");
      runtime && *runtime == '/' && isPrivate(runtime)) {
    auto folder = std::string(runtime) + "/kestrova";
    if (makePrivate(folder)) return folder;
  }
  auto folder = "/tmp/kestrova-" + std::to_string(::geteuid());
  if (makePrivate(folder)) return folder;
  return std::nullopt;
}

bool isGroupName(std::string_view name) {
  const auto isFit = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
  };
  return !name.empty() && name.size() <= longestGroup && name.front() != '.' &&
         std::all_of(name.begin(), name.end(), isFit);
}

std::optional<std::string> groupFolder(const std::string& group) {
  if (!isGroupName(group)) return std::nullopt;
  const auto top = privateFolder();
  if (!top) return std::nullopt;
  auto folder = *top + "/" + group;
  if (makePrivate(folder)) return folder;
  return std::nullopt;
}

}  // namespace kestrova
