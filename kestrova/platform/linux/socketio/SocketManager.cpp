#include <kestrova/platform/Platform.h>
#include <kestrova/platform/linux/socketio/SocketClient.h>
#include <kestrova/platform/linux/socketio/SocketManager.h>

namespace kestrova {
namespace {

using ConnectParams = std::vector<std::pair<std::string, std::string>>;

/// The reference server answers only below its path, so the trailing slash is part of it.
std::string engineTarget(const std::string& path, const ConnectParams& params) {
  return makeTarget(path, "EIO=4&transport=websocket", params);
}

class WebSocketManager final : public SocketManager {
public:
  WebSocketManager(std::shared_ptr<SocketClient> client, std::shared_ptr<SocketLink> link,
                   std::string path)
      : _client(std::move(client)), _link(std::move(link)), _path(std::move(path)) {}
  ~WebSocketManager() override { _client->retire(); }

  std::shared_ptr<SocketIOClient> defaultSocket() override { return _client; }
  void setConnectParams(ConnectParams params) override {
    _link->setTarget(engineTarget(_path, params));
  }
  void disconnect() override { _client->disconnect(); }

private:
  const std::shared_ptr<SocketClient> _client;
  const std::shared_ptr<SocketLink> _link;
  const std::string _path;
};

}  // namespace

std::shared_ptr<SocketManager> makeSocketManager(const std::string& url, SocketManagerConfig config,
                                                 boost::asio::any_io_executor io,
                                                 SocketManagerOptions options) {
  auto endpoint = WebSocketEndpoint::make(url);
  if (!endpoint) return nullptr;
  endpoint->target = engineTarget(config.path, config.connectParams);
  if (!options.scheduler) options.scheduler = Platform::current()->scheduler;
  if (!config.handleQueue) config.handleQueue = SerialQueue::make("socketio.handlers");

  LinkOptions link;
  link.endpoint = std::move(*endpoint);
  auto& socket = link.engine.socket;
  socket.scheduler = options.scheduler;
  socket.limits.connectTimeout = options.connectTimeout;
  socket.limits.closeTimeout = options.closeTimeout;
  socket.limits.stallTimeout = options.stallTimeout;
  socket.limits.maxIncomingBytes = config.maxMessageBytes;
  link.engine.pings.shortest = options.shortestPing;
  link.lastingTime = options.lastingTime;
  link.reconnects = config.reconnects;
  link.reconnectAttempts = config.reconnectAttempts;
  link.reconnectWait = config.reconnectWait;
  link.reconnectWaitMax = config.reconnectWaitMax;

  auto keeper = std::make_shared<SocketLink>(std::move(io), options.scheduler, std::move(link));
  auto client = std::make_shared<SocketClient>(keeper, config.handleQueue, options.scheduler,
                                               std::move(config.trace));
  keeper->setListener(client);
  return std::make_shared<WebSocketManager>(std::move(client), std::move(keeper),
                                            std::move(config.path));
}

}  // namespace kestrova
