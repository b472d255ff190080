#pragma once

#include <kestrova/platform/Values.h>

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace kestrova::test {

/// The local meeting service in a process of its own, on a free port, with a state folder of its
/// own. Ends with the object, and with the test program in any case. From its making on this
/// process trusts the service's authority.
class LocalService {
public:
  /// \param options further arguments of server/bin/service
  explicit LocalService(std::vector<std::string> options = {});
  ~LocalService();
  LocalService(const LocalService&) = delete;
  LocalService& operator=(const LocalService&) = delete;

  const std::string& address() const { return _address; }
  /// \param options further arguments of server/bin/token
  std::string token(const std::string& options = "") const;
  /// Has the service do something of its table of control actions; gives its answer.
  Dictionary control(const std::string& action, const Dictionary& body) const;
  /// Ends its process without a word to anybody.
  void kill();
  /// Starts it anew where it was: the same port, the same authority, and no meetings.
  void startAgain();

private:
  void start(const std::string& port);

  const std::vector<std::string> _options;
  std::filesystem::path _state;
  std::string _address;
  std::string _controlUrl;
  std::string _controlKey;
  pid_t _process = -1;
  int _input = -1;
};

}  // namespace kestrova::test
