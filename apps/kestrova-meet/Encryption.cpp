#include "Encryption.h"

#include <kestrova/session/Kestrova.h>

#include <cstdlib>
#include <fstream>
#include <memory>

namespace kestrova::meet {
namespace {

constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

/// Its first line.
std::string keyFrom(const std::string& file) {
  std::ifstream in(file);
  std::string key;
  if (!in || !std::getline(in, key)) throw std::runtime_error("no key can be read from " + file);
  if (key.starts_with(byteOrderMark)) key.erase(0, byteOrderMark.size());
  return key;
}

std::string keyOf(const Options& options) {
  if (!options.key.empty()) return options.key;
  if (!options.keyFile.empty()) return keyFrom(options.keyFile);
  const auto* environment = std::getenv("KESTROVA_KEY");
  return environment ? environment : "";
}

void use(BaseKeyProvider& keys, const std::string& key) {
  try {
    keys.setSharedKey(key);
  } catch (const RoomClientFailure& failure) {
    throw std::runtime_error(failure.error() == RoomClientError::keyEncodingFailed
                                 ? "the key is not UTF-8"
                                 : "the key is empty");
  }
}

BaseKeyProvider& present() {
  const auto keys = Kestrova::baseKeyProvider();
  if (!keys) throw std::runtime_error("the meeting is not encrypted");
  return *keys;
}

}  // namespace

void beginEncryption(const Options& options) {
  try {
    const auto key = keyOf(options);
    if (key.empty() && options.keyFile.empty()) return;
    const auto keys = std::make_shared<BaseKeyProvider>(true);
    use(*keys, key);
    Kestrova::setKeyProvider(keys);
  } catch (const std::runtime_error& error) {
    throw UsageError(error.what());
  }
}

void rereadKey(const std::string& keyFile) {
  if (keyFile.empty()) throw std::runtime_error("there is no --key-file to read");
  use(present(), keyFrom(keyFile));
}

void ratchetKey() {
  present().ratchetSharedKey();
}

}  // namespace kestrova::meet
