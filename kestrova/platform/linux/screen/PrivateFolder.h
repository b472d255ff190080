#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kestrova {

/// The folder of this user alone in which processes meet: below XDG_RUNTIME_DIR, and where that is
/// not set, or not to be trusted, one of its own in the folder for temporary files. It is made when
/// it is not there. Nothing when somebody else could look into it or has put something in its
/// place.
std::optional<std::string> privateFolder();

/// The folder of one group in there. Nothing, too, for a name that is none of a folder.
std::optional<std::string> groupFolder(const std::string& group);
/// Whether it is made of letters, digits, '.', '_' and '-', and does not begin with a dot.
bool isGroupName(std::string_view name);
/// What a name may have that an application declares: one of a share's own is longer, and the
/// socket in its folder must fit into an address.
inline constexpr std::size_t longestDeclaredGroup = 44;

}  // namespace kestrova
