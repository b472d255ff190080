#pragma once

#include <kestrova/media/BridgeRules.h>
#include <kestrova/media/BroadcastStream.h>
#include <kestrova/platform/UnixSockets.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

namespace kestrova {

/// The socket to which a process that sends the screen comes. One at a time: who comes while
/// another is there is turned away.
///
/// It goes from closed to listening, to streaming, and back to closed for good. Any thread may
/// call; nothing is waited for.
class BroadcastSocketConnection : public std::enable_shared_from_this<BroadcastSocketConnection> {
public:
  /// Bytes of the longest path that is taken.
  static constexpr std::size_t longestPath = 104;
  /// Bytes that an address has room for, without the one that ends it.
  static constexpr std::size_t longestAddress = 103;
  static constexpr int backlog = 10;
  /// How long a stream is still before its delegate hears of it.
  static constexpr std::chrono::milliseconds quietTime{250};

  /// Nothing when there are no sockets, or no path.
  static std::shared_ptr<BroadcastSocketConnection> make(std::string filePath,
                                                         std::weak_ptr<StreamDelegate> delegate,
                                                         std::shared_ptr<UnixSockets> sockets,
                                                         const BridgeRules& rules = mainBridge);
  ~BroadcastSocketConnection();

  /// Listens at the path; whatever lay there is removed. False when it can't.
  bool open();
  void close();
  bool isOpen() const;
  const std::string filePath;
  const std::weak_ptr<StreamDelegate> streamDelegate;

private:
  class Input;
  BroadcastSocketConnection(std::string path, std::weak_ptr<StreamDelegate> delegate,
                            std::shared_ptr<UnixSockets> sockets, const BridgeRules& rules);
  bool openSocket();
  void acceptClient();
  void setupStreams(int client);
  void readStream();
  bool shouldKeepRunning() const;

  const std::shared_ptr<UnixSockets> _sockets;
  const BridgeRules& _rules;
  mutable std::mutex _closeLock;
  // Under _closeLock:
  std::unique_ptr<SocketLoop> _networkQueue;
  int _socketHandle = -1;
  std::shared_ptr<Input> _inputStream;
  bool _shouldKeepRunning = false;
  std::string _boundPath;
  std::string _boundFile;  ///< which one lies there since
};

/// The older bridge's.
struct iOSSocketConnection {
  static std::shared_ptr<BroadcastSocketConnection> make(std::string filePath,
                                                         std::weak_ptr<StreamDelegate> delegate,
                                                         std::shared_ptr<UnixSockets> sockets) {
    return BroadcastSocketConnection::make(std::move(filePath), std::move(delegate),
                                           std::move(sockets), olderBridge);
  }
};

}  // namespace kestrova
