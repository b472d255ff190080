#pragma once

#include <kestrova/platform/FrameCryptor.h>

#include "Journal.h"
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova::test {

using KeyBytes = std::vector<std::uint8_t>;

/// Keeps what it is given.
class ScriptedKeyProvider final : public RTCFrameCryptorKeyProvider {
public:
  bool setSharedKey(std::span<const std::uint8_t> key, int index) override {
    if (refuses) return false;
    keys[index] = KeyBytes(key.begin(), key.end());
    return true;
  }
  std::optional<KeyBytes> exportSharedKey(int index) const override {
    const auto found = keys.find(index);
    return found == keys.end() ? std::nullopt : std::optional(found->second);
  }
  std::optional<KeyBytes> ratchetSharedKey(int index) override {
    const auto found = keys.find(index);
    if (found == keys.end()) return std::nullopt;
    found->second.push_back('+');
    return found->second;
  }

  std::map<int, KeyBytes> keys;
  bool refuses = false;
};

class ScriptedCryptor final : public RTCFrameCryptor,
                              public std::enable_shared_from_this<ScriptedCryptor> {
public:
  ScriptedCryptor(Journal& journal, std::string id, std::function<void(ScriptedCryptor&)> onEnabled)
      : _journal(journal), _id(std::move(id)), _onEnabled(std::move(onEnabled)) {}
  std::string participantId() const override { return _id; }
  void setDelegate(std::weak_ptr<RTCFrameCryptorDelegate> delegate) override {
    _delegate = std::move(delegate);
  }
  bool enabled() const override { return _enabled; }
  void setEnabled(bool enabled) override {
    _journal.add("cryptor " + _id + (enabled ? ".on" : ".off"));
    _enabled = enabled;
    if (enabled && _onEnabled) _onEnabled(*this);
  }
  void reach(RTCFrameCryptorState state) {
    if (const auto delegate = _delegate.lock())
      delegate->frameCryptor(shared_from_this(), _id, state);
  }

private:
  Journal& _journal;
  const std::string _id;
  const std::function<void(ScriptedCryptor&)> _onEnabled;
  std::weak_ptr<RTCFrameCryptorDelegate> _delegate;
  bool _enabled = false;
};

class ScriptedCryptors final : public FrameCryptors {
public:
  explicit ScriptedCryptors(Journal& journal) : _journal(journal) {}

  std::shared_ptr<RTCFrameCryptorKeyProvider> makeKeyProvider(
      const FrameCryptorKeyOptions& options) override {
    madeWith = options;
    keys = std::make_shared<ScriptedKeyProvider>();
    return keys;
  }
  std::shared_ptr<RTCFrameCryptor> makeFrameCryptor(
      const std::shared_ptr<RTCPeerConnectionFactory>&, const std::shared_ptr<RTCRtpSender>&,
      const std::string& participantId, int algorithm,
      const std::shared_ptr<RTCFrameCryptorKeyProvider>& keyProvider) override {
    return make(participantId, algorithm, keyProvider);
  }
  std::shared_ptr<RTCFrameCryptor> makeFrameCryptor(
      const std::shared_ptr<RTCPeerConnectionFactory>&, const std::shared_ptr<RTCRtpReceiver>&,
      const std::string& participantId, int algorithm,
      const std::shared_ptr<RTCFrameCryptorKeyProvider>& keyProvider) override {
    return make(participantId, algorithm, keyProvider);
  }
  /// The one of that producer or consumer, if somebody holds it.
  std::shared_ptr<ScriptedCryptor> of(const std::string& id) { return _cryptors[id].lock(); }

  FrameCryptorKeyOptions madeWith;
  std::shared_ptr<ScriptedKeyProvider> keys;  ///< the newest
  bool refuses = false;
  /// Once a cryptor is on.
  std::function<void(ScriptedCryptor&)> onEnabled;

private:
  std::shared_ptr<RTCFrameCryptor> make(
      const std::string& id, int algorithm,
      const std::shared_ptr<RTCFrameCryptorKeyProvider>& keyProvider) {
    if (refuses || algorithm != aesGcm || keyProvider != keys) return nullptr;
    auto cryptor = std::make_shared<ScriptedCryptor>(_journal, id, onEnabled);
    _cryptors[id] = cryptor;
    return cryptor;
  }

  Journal& _journal;
  std::map<std::string, std::weak_ptr<ScriptedCryptor>> _cryptors;
};

}  // namespace kestrova::test
