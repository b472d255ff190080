#include <kestrova/media/ImageDownload.h>
#include <kestrova/model/Secrets.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/tracing/Trace.h>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/url/parse.hpp>

#include <chrono>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace kestrova {
namespace {

constexpr std::chrono::milliseconds imageTimeout{15'000};
/// As much as is taken from the network; a picture of 50 million pixels is smaller.
constexpr std::uintmax_t maxImageFile = 16 * 1024 * 1024;

/// The path that a URL of this machine names. Nothing for any other URL.
std::optional<std::filesystem::path> filePath(const std::string& url) {
  if (!boost::algorithm::istarts_with(url, "file:")) return std::nullopt;
  const auto parsed = boost::urls::parse_uri(url);
  if (!parsed) throw std::runtime_error("the URL can't be read");
  const auto host = parsed->host();
  if (!host.empty() && host != "localhost")
    throw std::runtime_error("files of other machines can't be read");
  const auto path = parsed->path();
  if (path.find('\0') != path.npos) throw std::runtime_error("the URL can't be read");
  return std::filesystem::path(path);
}

/// \throws std::exception
std::string readImageFile(const std::filesystem::path& path) {
  // A pipe or a device might never end.
  if (!std::filesystem::is_regular_file(path)) throw std::runtime_error("there is no such file");
  const auto size = std::filesystem::file_size(path);
  if (size > maxImageFile) throw std::runtime_error("the file is too large");
  std::ifstream file(path, std::ios::binary);
  std::string bytes(size, '\0');
  if (!file.read(bytes.data(), static_cast<std::streamsize>(size)))
    throw std::runtime_error("the file can't be read");
  return bytes;
}

Task<std::string> imageFile(std::shared_ptr<const Platform> platform, std::string url) {
  if (const auto path = filePath(url)) co_return readImageFile(*path);
  URLRequest request{.url = std::move(url), .timeout = imageTimeout};
  URLResponse response = co_await platform->urlSession->data(std::move(request));
  co_return std::move(response.body);
}

Task<void> fetchImage(std::string url, std::function<void(std::optional<Image>)> completion) {
  const auto platform = Platform::current();
  std::optional<Image> image;
  try {
    auto fetching = imageFile(platform, std::move(url));
    const std::string file = co_await std::move(fetching);
    if (platform->imaging) image = platform->imaging->decode(file);
  } catch (const std::exception& error) {
    const auto readable = [&] { return textWithoutSecrets(error.what()); };
    traceDebug("Image download failed", {{"error", readable}});
  }
  MainQueue::shared().async(
      [image = std::move(image), completion = std::move(completion)]() mutable {
        if (completion) completion(std::move(image));
      });
}

}  // namespace

void downloadImage(std::string url, std::function<void(std::optional<Image>)> completion) {
  spawn(fetchImage(std::move(url), std::move(completion)));
}

}  // namespace kestrova
