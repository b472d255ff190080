#include <kestrova/media/ImageDownload.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/session/Utils.h>

#include <cstdint>
#include <random>
#include <string_view>
#include <utility>

namespace kestrova {
namespace {

/// 64 bits of the system's randomness at a time.
struct SystemRandom {
  using result_type = std::uint64_t;
  static constexpr result_type min() { return 0; }
  static constexpr result_type max() { return ~result_type(0); }
  result_type operator()() {
    return static_cast<result_type>(device()) << 32 | static_cast<std::uint32_t>(device());
  }
  std::random_device device;
};

}  // namespace

std::string Utils::generatePeerId() {
  constexpr std::string_view alphabet =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  constexpr std::size_t length = 8;
  SystemRandom source;
  // Rejects what would favour the first letters.
  std::uniform_int_distribution<std::size_t> draw(0, alphabet.size() - 1);
  std::string id;
  while (id.size() < length) id += alphabet[draw(source)];
  return id;
}

void Utils::downloadImage(std::string url, ImageHandler completion) {
  kestrova::downloadImage(std::move(url), std::move(completion));
}

std::optional<Image> Utils::resizeImage(const Image& image, int newHeight, int newWidth) {
  const auto imaging = Platform::current()->imaging;
  return imaging ? imaging->resize(image, newWidth, newHeight) : std::nullopt;
}

}  // namespace kestrova
