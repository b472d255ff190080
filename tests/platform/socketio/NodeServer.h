#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace kestrova::test {

/// The reference Socket.IO server in a process of its own, on loopback. Ends with the object, and
/// with the test program in any case.
class NodeServer {
public:
  /// \param options members of a JSON object, see server.mjs
  explicit NodeServer(const std::string& options = "");
  ~NodeServer();
  NodeServer(const NodeServer&) = delete;
  NodeServer& operator=(const NodeServer&) = delete;

  int port() const { return _port; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(_port); }
  void kill();
  void stop();  ///< freezes it: connections stay and nothing answers
  void resume();

private:
  pid_t _process = -1;
  int _input = -1;
  int _port = 0;
};

/// A temporary folder with "ca.pem" and, for each name asked for, a certificate that it has signed.
class Authority {
public:
  Authority();
  ~Authority();
  Authority(const Authority&) = delete;
  Authority& operator=(const Authority&) = delete;

  std::string file() const { return (_folder / "ca.pem").string(); }
  /// \param names such as "IP:127.0.0.1,DNS:localhost" \param days negative: has expired
  /// \return the options of a `NodeServer` that uses it
  std::string certify(const std::string& names, int days = 2);

private:
  std::filesystem::path _folder;
  int _count = 0;
};

}  // namespace kestrova::test
