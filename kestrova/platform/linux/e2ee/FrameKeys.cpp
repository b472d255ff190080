#include <kestrova/platform/linux/e2ee/FrameKeys.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>

#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace kestrova::e2ee {
namespace {

/// Part of the format: everybody must stretch the key alike.
constexpr int kIterations = 100'000;
constexpr std::string_view kFrameKeyInfo = "frame key";
constexpr std::string_view kRatchetInfo = "ratchet";

void require(bool good) {
  if (!good) throw std::runtime_error("a key can't be derived");
}

/// RFC 5869 with SHA-256.
void hkdf(ByteView secret, ByteView salt, std::string_view info, std::span<std::uint8_t> out) {
  const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
      EVP_PKEY_CTX_new_id(EVP_PKEY_HKDF, nullptr), EVP_PKEY_CTX_free);
  require(context != nullptr);
  auto* hkdf = context.get();
  const auto* label = reinterpret_cast<const unsigned char*>(info.data());
  auto size = out.size();
  require(EVP_PKEY_derive_init(hkdf) > 0 && EVP_PKEY_CTX_set_hkdf_md(hkdf, EVP_sha256()) > 0);
  // Without one it is the RFC's own, of zeros; the call refuses to be given none.
  if (!salt.empty())
    require(EVP_PKEY_CTX_set1_hkdf_salt(hkdf, salt.data(), static_cast<int>(salt.size())) > 0);
  require(EVP_PKEY_CTX_set1_hkdf_key(hkdf, secret.data(), static_cast<int>(secret.size())) > 0 &&
          EVP_PKEY_CTX_add1_hkdf_info(hkdf, label, static_cast<int>(info.size())) > 0 &&
          EVP_PKEY_derive(hkdf, out.data(), &size) > 0 && size == out.size());
}

}  // namespace

void wipe(std::span<std::uint8_t> secret) {
  OPENSSL_cleanse(secret.data(), secret.size());
}

KeyMaterial::KeyMaterial(Bytes materialBytes, ByteView salt) : material(std::move(materialBytes)) {
  std::array<std::uint8_t, 32> stretched{};
  const auto* text = reinterpret_cast<const char*>(material.data());
  require(PKCS5_PBKDF2_HMAC(text, static_cast<int>(material.size()), salt.data(),
                            static_cast<int>(salt.size()), kIterations, EVP_sha256(),
                            static_cast<int>(stretched.size()), stretched.data()) == 1);
  hkdf(stretched, salt, kFrameKeyInfo, frameKey);
  hkdf(stretched, salt, kRatchetInfo, nextMaterial);
  wipe(stretched);
}

KeyMaterial::~KeyMaterial() {
  wipe(material);
  wipe(frameKey);
  wipe(nextMaterial);
}

KeyMaterial& KeyMaterial::operator=(KeyMaterial&& other) noexcept {
  material.swap(other.material);
  frameKey.swap(other.frameKey);
  nextMaterial.swap(other.nextMaterial);
  return *this;
}

KeyMaterial KeyMaterial::next(ByteView salt) const {
  return KeyMaterial(Bytes(nextMaterial.begin(), nextMaterial.end()), salt);
}

}  // namespace kestrova::e2ee
