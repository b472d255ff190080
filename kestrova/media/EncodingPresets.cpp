#include <kestrova/media/EncodingPresets.h>

#include <algorithm>
#include <string>

namespace kestrova {
namespace {

template <typename Rows>
constexpr bool inOrderOfCases(const Rows& rows) {
  for (std::size_t i = 0; i < rows.size(); ++i)
    if (static_cast<std::size_t>(rows[i].config) != i) return false;
  return true;
}
static_assert(inOrderOfCases(customVideoTrackConfigMap));
static_assert(inOrderOfCases(customAudioTrackConfigMap));

template <typename Rows>
auto findByName(const Rows& rows, std::string_view name) {
  return std::find_if(rows.begin(), rows.end(), [&](const auto& row) { return row.name == name; });
}

}  // namespace

std::optional<VideoCodec> videoCodecFromServer(std::string_view serverCodec) {
  const auto slash = serverCodec.find('/');
  std::string name(slash == std::string_view::npos ? serverCodec : serverCodec.substr(slash + 1));
  std::transform(name.begin(), name.end(), name.begin(), [](char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  });
  return videoCodecTexts.parse(name);
}

std::optional<SpatialTemporalLayer> videoLayer(std::string_view table, std::string_view name) {
  const auto found = findByName(VIDEO_LAYERS, table);
  if (found == VIDEO_LAYERS.end()) return std::nullopt;
  const auto layer = findByName(found->layers, name);
  if (layer == found->layers.end()) return std::nullopt;
  return layer->layer;
}

}  // namespace kestrova
