#include "ScriptedScreen.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace kestrova::test {

class ScriptedSockets::Loop final : public SocketLoop {
public:
  explicit Loop(ScriptedSockets& sockets)
      : _sockets(sockets), _watched(sockets._watched), _quiet(sockets._quiet) {}
  ~Loop() override {
    _watched->clear();
    *_quiet = nullptr;
  }
  void watch(int handle, std::function<void()> readable) override {
    (*_watched)[handle] = std::move(readable);
  }
  void release(int handle) override {
    _watched->erase(handle);
    _sockets.close(handle);
  }
  void whenQuiet(std::chrono::milliseconds, std::function<void()> work) override {
    *_quiet = std::move(work);
  }

private:
  ScriptedSockets& _sockets;
  const std::shared_ptr<std::map<int, std::function<void()>>> _watched;
  const std::shared_ptr<std::function<void()>> _quiet;
};

void ScriptedSockets::readable(int handle) {
  const auto found = _watched->find(handle);
  if (found == _watched->end()) return;
  const auto call = found->second;
  call();
}

int ScriptedSockets::connect() {
  const int client = ++_last;
  open.insert(client);
  _clients[client];
  _waiting.push_back(client);
  readable(_listening);
  return open.contains(client) ? client : -1;
}

void ScriptedSockets::send(int client, std::string_view bytes) {
  _clients[client].incoming.emplace_back(bytes);
  while (open.contains(client) && _watched->contains(client) && !_clients[client].incoming.empty())
    readable(client);
}

void ScriptedSockets::hangUp(int client) {
  _clients[client].hasHungUp = true;
  readable(client);
}

void ScriptedSockets::fail(int client, const std::string& error) {
  _clients[client].error = error;
  readable(client);
}

void ScriptedSockets::beQuiet() {
  if (const auto call = *_quiet) call();
}

int ScriptedSockets::socket() {
  open.insert(++_last);
  return _last;
}

bool ScriptedSockets::bind(int handle, const std::string& path) {
  if (!bindWorks) return false;
  files.insert(path);
  _ids[path] = handle;
  return true;
}

bool ScriptedSockets::listen(int handle, int backlog) {
  _journal.add("listen " + std::to_string(backlog));
  _listening = handle;
  return listenWorks;
}

int ScriptedSockets::accept(int) {
  if (_waiting.empty()) return -1;
  const int client = _waiting.front();
  _waiting.pop_front();
  return client;
}

std::ptrdiff_t ScriptedSockets::read(int handle, std::uint8_t* bytes, std::size_t length) {
  asked.push_back(length);
  auto& client = _clients[handle];
  _lastError = client.error;
  if (!client.error.empty()) return -1;
  if (client.incoming.empty()) return client.hasHungUp ? 0 : -1;
  auto& first = client.incoming.front();
  const auto count = std::min(length, first.size());
  std::memcpy(bytes, first.data(), count);
  first.erase(0, count);
  if (first.empty()) client.incoming.pop_front();
  return static_cast<std::ptrdiff_t>(count);
}

std::unique_ptr<SocketLoop> ScriptedSockets::makeLoop() {
  return std::make_unique<Loop>(*this);
}

// ---- The screen --------------------------------------------------------------------------------

class ScriptedScreen::Program final : public BroadcastProgram {
public:
  explicit Program(ScriptedScreen& screen) : _screen(screen) { ++_screen.programsRunning; }
  ~Program() override { --_screen.programsRunning; }

private:
  ScriptedScreen& _screen;
};

class ScriptedScreen::Center final : public CrossProcessNotifications {
public:
  struct Ear final : Observer {
    std::string name;
    std::function<void()> handler;
  };
  explicit Center(const ScriptedScreen& screen) : _screen(screen) {}
  std::shared_ptr<Observer> addObserver(const std::string&, std::string name,
                                        std::function<void()> handler) override {
    if (!_screen.canObserve) return nullptr;
    auto ear = std::make_shared<Ear>();
    ear->name = std::move(name);
    ear->handler = std::move(handler);
    ears.push_back(ear);
    return ear;
  }
  void post(const std::string&, const std::string& name) override {
    for (const auto& weak : std::vector(ears))
      if (const auto ear = weak.lock(); ear && ear->name == name) ear->handler();
  }
  std::vector<std::weak_ptr<Ear>> ears;

private:
  const ScriptedScreen& _screen;
};

std::shared_ptr<CrossProcessNotifications> ScriptedScreen::notifications() {
  if (!_center) _center = std::make_shared<Center>(*this);
  return _center;
}

void ScriptedScreen::notify(const std::string& name) {
  notifications()->post("", name);
}

int ScriptedScreen::observers() const {
  if (!_center) return 0;
  return static_cast<int>(std::count_if(_center->ears.begin(), _center->ears.end(),
                                        [](const auto& weak) { return !weak.expired(); }));
}

void ScriptedScreen::endProgram(const BroadcastEnd& end) {
  if (const auto tell = std::exchange(_ended, nullptr)) tell(end);
}

std::optional<std::string> ScriptedScreen::infoValue(std::string_view key) {
  const auto& value =
      key == appGroupIdentifierKey ? config.appGroupIdentifier : config.screenSharingExtension;
  return value.empty() ? std::nullopt : std::optional(value);
}

std::optional<std::string> ScriptedScreen::container(const std::string& groupIdentifier) {
  return hasContainers ? std::optional("/run/" + groupIdentifier) : std::nullopt;
}

std::unique_ptr<BroadcastProgram> ScriptedScreen::showBroadcastPicker(
    const std::string& preferredExtension, const std::string& groupIdentifier,
    std::function<void(const BroadcastEnd& end)> ended) {
  if (!hasProgram) return nullptr;
  _journal.add("picker " + preferredExtension + " " + groupIdentifier);
  _ended = std::move(ended);
  return std::make_unique<Program>(*this);
}

namespace {

/// A picture is a text that begins with "picture"; the letter behind that fills the buffer.
class ScriptedRenderer final : public PictureRenderer {
public:
  bool render(std::span<const std::uint8_t> data, PixelBuffer& buffer) override {
    constexpr std::string_view start = "picture";
    const std::string_view body(reinterpret_cast<const char*>(data.data()), data.size());
    const auto size = static_cast<std::size_t>(buffer.stride() * buffer.height());
    const bool isPicture = body.starts_with(start) && body.size() > start.size();
    std::memset(buffer.mutablePixels(), isPicture ? body[start.size()] : '?', size);
    return isPicture;
  }
};

}  // namespace

std::unique_ptr<PictureRenderer> ScriptedScreen::makeRenderer() {
  return std::make_unique<ScriptedRenderer>();
}

std::string frameOf(const std::string& body, int width, int height, int orientation) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nBuffer-Width: " + std::to_string(width) +
         "\r\nBuffer-Height: " + std::to_string(height) +
         "\r\nBuffer-Orientation: " + std::to_string(orientation) + "\r\n\r\n" + body;
}

}  // namespace kestrova::test
