#pragma once

#include <kestrova/media/KeyProviderOptions.h>
#include <kestrova/model/RoomClientError.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace kestrova {

class RTCFrameCryptorKeyProvider;

/// The key with which the frames of a meeting are encrypted from end to end: the service passes
/// them on without being able to look into them. Everybody in the meeting needs the same key, which
/// must reach them by a way that the service doesn't see. Thread-safe.
///
///     auto keys = std::make_shared<BaseKeyProvider>(true);
///     keys->setSharedKey("correct horse battery staple");
///     Kestrova::setKeyProvider(keys);  // before the join
///
/// A key that is set later, or ratcheted, holds at once for every meeting that uses the provider.
class BaseKeyProvider {
public:
  /// \param discardFrameWhenCryptorNotReady whether received frames that come before their cryptor
  ///   is on are discarded, or handed on as they came; nothing is sent unencrypted either way
  explicit BaseKeyProvider(bool discardFrameWhenCryptorNotReady);
  ~BaseKeyProvider();
  BaseKeyProvider(const BaseKeyProvider&) = delete;
  BaseKeyProvider& operator=(const BaseKeyProvider&) = delete;

  /// Takes a text of any length, without regard to white space around it. It derives what frames
  /// are encrypted with on the calling thread, some tens of milliseconds.
  /// \throws RoomClientFailure sharedKeyIssue when nothing is left of it, or it can't be used;
  ///   keyEncodingFailed when it is not UTF-8
  void setSharedKey(std::string_view key);
  /// The key's bytes as they are now; nothing before one was set. They are the secret itself.
  std::optional<std::vector<std::uint8_t>> exportSharedKey() const;
  /// Goes on to the next key, which everybody finds who has this one, and which doesn't lead back.
  /// All must do so, and in the meantime they don't understand each other. As long as setting one.
  /// \returns its bytes; nothing before a key was set
  std::optional<std::vector<std::uint8_t>> ratchetSharedKey();

  const KeyProviderOptions& options() const;
  /// Whether a key has been set.
  bool isSharedKey() const;
  /// The platform's side of it; nothing where the platform can't encrypt.
  const std::shared_ptr<RTCFrameCryptorKeyProvider>& keyProvider() const;

private:
  struct State;
  const std::unique_ptr<State> _state;
};

}  // namespace kestrova
