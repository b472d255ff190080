#pragma once

#include <kestrova/platform/ScreenSharing.h>

#include "Journal.h"
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kestrova::test {

/// Sockets at which nobody knocks but the test.
class ScriptedSockets final : public UnixSockets {
public:
  explicit ScriptedSockets(Journal& journal) : _journal(journal) {}

  bool hasSockets = true;
  bool bindWorks = true;
  bool listenWorks = true;
  std::set<std::string> files;  ///< that exist, by their path
  std::set<int> open;

  /// Somebody connects. \returns their handle, -1 when nobody listens or they are turned away
  int connect();
  void send(int client, std::string_view bytes);
  void hangUp(int client);
  void fail(int client, const std::string& error);
  void beQuiet();
  /// The lengths that were asked for, in order.
  std::vector<std::size_t> asked;

  int socket() override;
  bool bind(int handle, const std::string& path) override;
  bool listen(int handle, int backlog) override;
  int accept(int handle) override;
  std::ptrdiff_t read(int handle, std::uint8_t* bytes, std::size_t length) override;
  std::string lastError() override { return _lastError; }
  void close(int handle) override { open.erase(handle); }
  void unlink(const std::string& path) override { files.erase(path); }
  std::string fileId(const std::string& path) override {
    return files.contains(path) ? std::to_string(_ids[path]) : std::string();
  }
  std::unique_ptr<SocketLoop> makeLoop() override;

private:
  class Loop;
  struct Client {
    std::deque<std::string> incoming;
    bool hasHungUp = false;
    std::string error;
  };
  void readable(int handle);

  Journal& _journal;
  int _last = 100;
  int _listening = -1;
  std::deque<int> _waiting;
  std::map<int, Client> _clients;
  std::map<std::string, int> _ids;  // by path: the handle that was bound there
  std::string _lastError;
  // Shared with the loops, which may outlive this object.
  const std::shared_ptr<std::map<int, std::function<void()>>> _watched =
      std::make_shared<std::map<int, std::function<void()>>>();
  const std::shared_ptr<std::function<void()>> _quiet = std::make_shared<std::function<void()>>();
};

/// A screen that is shared as the test says: its programs start, speak and end on demand.
class ScriptedScreen final : public ScreenSharing {
public:
  explicit ScriptedScreen(Journal& journal)
      : scriptedSockets(std::make_shared<ScriptedSockets>(journal)), _journal(journal) {}

  const std::shared_ptr<ScriptedSockets> scriptedSockets;
  ScreenShareConfig config{.screenSharingExtension = "sender"};
  bool hasContainers = true;
  bool canObserve = true;
  bool hasProgram = true;
  int programsRunning = 0;

  /// A process of the group notifies.
  void notify(const std::string& name);
  int observers() const;
  /// The newest program ends.
  void endProgram(const BroadcastEnd& end = {});

  void configure(const ScreenShareConfig& wanted) override { config = wanted; }
  std::optional<std::string> infoValue(std::string_view key) override;
  std::optional<std::string> container(const std::string& groupIdentifier) override;
  std::string ownGroup(const std::string& groupIdentifier) override {
    return groupIdentifier + "-own";
  }
  void removeContainer(const std::string& groupIdentifier) override {
    _journal.add("container.remove " + groupIdentifier);
  }
  std::shared_ptr<UnixSockets> sockets() override {
    return scriptedSockets->hasSockets ? scriptedSockets : nullptr;
  }
  std::unique_ptr<PictureRenderer> makeRenderer() override;
  std::shared_ptr<CrossProcessNotifications> notifications() override;
  std::unique_ptr<BroadcastProgram> showBroadcastPicker(
      const std::string& preferredExtension, const std::string& groupIdentifier,
      std::function<void(const BroadcastEnd& end)> ended) override;

private:
  class Program;
  class Center;
  Journal& _journal;
  std::function<void(const BroadcastEnd&)> _ended;
  std::shared_ptr<Center> _center;
};

/// One frame of the stream, such as a sender writes it.
std::string frameOf(const std::string& body, int width = 4, int height = 2, int orientation = 1);

}  // namespace kestrova::test
