#pragma once

#include <kestrova/inspector/HttpRequest.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kestrova::inspector {

/// One connection of a browser: a request, and its answer, which may have no end. Used on the
/// thread of its socket.
class PageConnection : public std::enable_shared_from_this<PageConnection> {
public:
  struct Limits {
    /// How long a request may take to come, and its answer to be taken.
    std::chrono::milliseconds request{10'000};
    /// How long a page may take nothing of what waits for it.
    std::chrono::milliseconds standstill{15'000};
    /// How much may wait for a page that reads slowly; more, and it is cut off. What a stream
    /// begins with counts, and is the most of it.
    std::size_t waitingBytes = 24 * 1024 * 1024;
  };
  /// What a connection asks its server.
  class Server {
  public:
    virtual ~Server() = default;
    /// Gives the answer by `answer` or `stream` of the connection.
    virtual void asked(PageConnection& connection, const HttpRequest& request) = 0;
    /// It is closed; nothing more will come of it.
    virtual void gone(const PageConnection& connection) = 0;
  };
  using Message = std::shared_ptr<const std::string>;

  /// \param server must outlive the running of the socket's thread
  PageConnection(boost::asio::ip::tcp::socket socket, Limits limits, Server& server);

  void start();
  /// Whoever has shown the key keeps the place when places run out.
  void showedKey() { _hasShownKey = true; }
  bool hasShownKey() const { return _hasShownKey; }
  /// Says this and closes.
  void answer(std::string text);
  /// Says this, and goes on with whatever is sent.
  void stream(std::string text);
  /// Whether it has been a stream, also after its end.
  bool isStream() const { return _isStream; }
  void send(const Message& message);
  /// Closes once what waits has been said; at once where no answer has begun.
  void finish();
  void close();

private:
  enum class State { reading, answering, streaming, finishing, closed };

  void put(Message text);
  void write();
  void written();
  void watchProgress();
  void readOn();

  boost::asio::ip::tcp::socket _socket;
  boost::asio::steady_timer _deadline;
  const Limits _limits;
  Server& _server;
  State _state = State::reading;
  bool _isStream = false;
  bool _hasShownKey = false;
  std::deque<Message> _waiting;
  std::vector<Message> _writing;
  std::size_t _waitingBytes = 0;  // of both
  std::chrono::steady_clock::time_point _progress;
  std::array<char, 512> _unwanted{};  // what is said after the request
};

}  // namespace kestrova::inspector
