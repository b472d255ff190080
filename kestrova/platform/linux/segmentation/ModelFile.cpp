#include <kestrova/platform/linux/segmentation/ModelFile.h>

#include <openssl/evp.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>

namespace kestrova::segmentation {
namespace {

/// The network is built as the file says, so only the files that it was tried with will do.
constexpr std::size_t modelSize = 249'024;
constexpr std::string_view modelHash =
    "8d13b7fae74af625c641226813616a2117bd6bca19eb3b75574621fc08557f27";

std::string sha256(const std::vector<std::uint8_t>& bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr);
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < size; ++i) {
    text += digits[digest[i] >> 4];
    text += digits[digest[i] & 15];
  }
  return text;
}

}  // namespace

std::string modelPath() {
  const char* configured = std::getenv("KESTROVA_SEGMENTATION_MODEL");
  return configured && *configured ? configured : KESTROVA_SEGMENTATION_MODEL_DEFAULT;
}

std::vector<std::uint8_t> readModelFile(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error))
    throw std::runtime_error("there is no model at " + path);
  std::ifstream file(path, std::ios::binary);
  std::vector<std::uint8_t> bytes(modelSize + 1);
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  if (bytes.empty()) throw std::runtime_error("the model can't be read: " + path);
  if (sha256(bytes) != modelHash)
    throw std::runtime_error("this is not the model that the library knows: " + path);
  return bytes;
}

}  // namespace kestrova::segmentation
