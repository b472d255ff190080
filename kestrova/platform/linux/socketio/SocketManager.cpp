#include <kestrova/platform/Platform.h>
#include <kestrova/platform/linux/socketio/SocketClient.h>
#include <kestrova/platform/linux/socketio/SocketManager.h>

namespace kestrova {
namespace {

class WebSocketManager final : public SocketManager {
public:
  explicit WebSocketManager(std::shared_ptr<SocketClient> client) : _client(std::move(client)) {}
  ~WebSocketManager() override { _client->retire(); }

  std::shared_ptr<SocketIOClient> defaultSocket() override { return _client; }
  void disconnect() override { _client->disconnect(); }

private:
  const std::shared_ptr<SocketClient> _client;
};

}  // namespace

std::shared_ptr<SocketManager> makeSocketManager(const std::string& url, SocketManagerConfig config,
                                                 boost::asio::any_io_executor io,
                                                 SocketManagerOptions options) {
  auto endpoint = Endpoint::make(url, config.path, config.connectParams);
  if (!endpoint) return nullptr;
  if (!options.scheduler) options.scheduler = Platform::current()->scheduler;
  if (!config.handleQueue) config.handleQueue = SerialQueue::make("socketio.handlers");

  LinkOptions link;
  link.endpoint = std::move(*endpoint);
  link.limits = {options.connectTimeout,
                 options.closeTimeout,
                 {.shortest = options.shortestPing},
                 config.maxMessageBytes};
  link.lastingTime = options.lastingTime;
  link.reconnects = config.reconnects;
  link.reconnectAttempts = config.reconnectAttempts;
  link.reconnectWait = config.reconnectWait;
  link.reconnectWaitMax = config.reconnectWaitMax;

  auto keeper = std::make_shared<SocketLink>(std::move(io), options.scheduler, std::move(link));
  auto client = std::make_shared<SocketClient>(keeper, config.handleQueue, options.scheduler,
                                               std::move(config.trace));
  keeper->setListener(client);
  return std::make_shared<WebSocketManager>(std::move(client));
}

}  // namespace kestrova
