#pragma once

#include <kestrova/platform/Values.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace kestrova::test {

/// One event of a stream, or nothing at its end: then `name` is empty.
struct PageEvent {
  std::string name;
  Dictionary data;
};

/// One connection to a server on loopback, as crude as a test wants it. Each read waits for what it
/// wants, up to a time that nothing here needs.
class Browser {
public:
  explicit Browser(std::uint16_t port, const char* host = "127.0.0.1", int receiveBytes = 0);
  /// To the place that an address names, asking for it or for what lies below it.
  static Browser visiting(const std::string& address, const std::string& below = "",
                          int receiveBytes = 0);
  ~Browser();
  Browser(Browser&& other) noexcept;
  Browser& operator=(Browser&&) = delete;

  bool isConnected() const { return _connected; }
  void send(std::string_view bytes) const;
  /// Everything up to the end of the connection.
  std::string readAll();
  /// So many bytes, or fewer where the connection ends before. \returns how many came
  std::size_t readSome(std::size_t bytes);
  /// The head of the answer, up to its empty line.
  std::string readHead();
  /// Comments between events are counted.
  PageEvent nextEvent();
  /// The next event of that name; nothing of the name when the stream ends before.
  PageEvent awaitEvent(std::string_view name);
  int comments() const { return _comments; }

private:
  /// \throws std::runtime_error when nothing comes for too long
  bool readMore(std::size_t most = 16384);
  /// Up to and with `end`, which is left out; everything there is where the connection ends before.
  std::string readUntil(std::string_view end);

  int _socket = -1;
  bool _connected = false;
  bool _ended = false;
  int _comments = 0;
  std::string _received;
};

/// A request for a target, as browsers make it.
std::string getRequest(std::string_view target, std::string_view host);
std::uint16_t portOf(const std::string& address);
/// "/KEY/" of "http://127.0.0.1:PORT/KEY/".
std::string pathOf(const std::string& address);

}  // namespace kestrova::test
