#include <kestrova/signalling/Events.h>

#include <array>
#include <unordered_map>

namespace kestrova {
namespace {

#define KESTROVA_EVENT_TEXT(id, text) text,
constexpr std::string_view localTexts[] = {KESTROVA_LOCAL_EVENTS(KESTROVA_EVENT_TEXT)};
constexpr std::string_view remoteTexts[] = {KESTROVA_REMOTE_EVENTS(KESTROVA_EVENT_TEXT)};
#undef KESTROVA_EVENT_TEXT

const auto& remoteEventsByText() {
  static const auto& table = *[] {
    auto* events = new std::unordered_map<std::string_view, RemoteEvent>;
    for (std::size_t i = 0; i < std::size(remoteTexts); ++i)
      events->emplace(remoteTexts[i], static_cast<RemoteEvent>(i));
    return events;
  }();
  return table;
}

}  // namespace

std::string_view wireText(LocalEvent event) {
  return localTexts[static_cast<std::size_t>(event)];
}

std::string_view wireText(RemoteEvent event) {
  return remoteTexts[static_cast<std::size_t>(event)];
}

std::optional<RemoteEvent> remoteEventFrom(std::string_view method) {
  const auto& table = remoteEventsByText();
  const auto found = table.find(method);
  if (found == table.end()) return std::nullopt;
  return found->second;
}

}  // namespace kestrova
