#pragma once

#include <kestrova/inspector/PageConnection.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova::inspector {

/// Serves the page and the stream of events that it reads, on the loopback address only. The
/// address holds a key, so that neither other users of the machine nor pages of other places find
/// it. Used on the thread of its event loop, but for the constructor.
class PageServer final : public PageConnection::Server {
public:
  struct Options {
    std::uint16_t port = 0;
    std::size_t mostPages = 8;  ///< that are open at a time
    std::chrono::milliseconds keepAlive{15'000};
    PageConnection::Limits limits{};
  };
  /// What a page that opens is told first: the data of the event "snapshot".
  using Greeting = std::function<std::string()>;

  /// Listens from now on. \param page must stay, and `greeting` be good, while the loop runs
  /// \throws std::system_error when the port can't be had
  PageServer(boost::asio::io_context& loop, Options options, std::string_view page,
             Greeting greeting);

  /// "http://127.0.0.1:PORT/KEY/". Any thread.
  const std::string& address() const { return _address; }
  /// Whether a page is open.
  bool hasPages() const { return _pages > 0; }
  /// To all pages. \param data JSON text
  void send(std::string_view event, std::string_view data);
  /// Accepts nobody any more; pages get what waits for them, and the end. Calls `done` once nobody
  /// is there.
  void finish(std::function<void()> done);
  /// Cuts off who is still there.
  void close();

private:
  void listen();
  void accept();
  void acceptOne();
  void accepted(int descriptor);
  /// \returns whether there is a place for one more connection
  bool makeRoom();
  void asked(PageConnection& connection, const HttpRequest& request) override;
  void gone(const PageConnection& connection) override;
  bool isOwnHost(std::string_view host) const;
  void openStream(PageConnection& connection);
  void keepAlive();
  void broadcast(std::string text);

  boost::asio::io_context& _loop;
  const Options _options;
  const std::string_view _page;
  const Greeting _greeting;
  boost::asio::ip::tcp::acceptor _acceptor;
  boost::asio::steady_timer _retry;
  boost::asio::steady_timer _keepAlive;
  std::string _path;  // "/KEY/"
  std::string _port;
  std::string _address;
  std::vector<std::shared_ptr<PageConnection>> _connections;
  std::size_t _pages = 0;
  std::function<void()> _finished;
};

}  // namespace kestrova::inspector
