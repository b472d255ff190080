#include "Portal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "ScreenSource.h"
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>
#include <vector>

// The protocol: XDG Desktop Portal, org.freedesktop.portal.ScreenCast.

namespace kestrova::broadcast {
namespace {

constexpr const char* portalName = "org.freedesktop.portal.Desktop";
constexpr const char* portalPath = "/org/freedesktop/portal/desktop";
constexpr const char* screenCast = "org.freedesktop.portal.ScreenCast";
constexpr std::uint32_t monitors = 1, windows = 2;
constexpr std::uint32_t hiddenCursor = 1, embeddedCursor = 2;
constexpr std::uint32_t untilRevoked = 2;
constexpr std::uint32_t firstThatRemembers = 4;  // version of the interface
constexpr std::size_t longestToken = 200;

/// What lets the desktop remember the user's choice. In a file of this user alone.
std::optional<std::filesystem::path> tokenFile() {
  const char* state = std::getenv("XDG_STATE_HOME");
  const char* home = std::getenv("HOME");
  if (state && *state == '/') return std::filesystem::path(state) / "kestrova" / "screen-token";
  if (home && *home == '/')
    return std::filesystem::path(home) / ".local/state/kestrova/screen-token";
  return std::nullopt;
}

std::string readToken() {
  const auto file = tokenFile();
  std::string token;
  if (file) std::ifstream(*file) >> token;
  return token.size() <= longestToken ? token : std::string();
}

void writeToken(const std::string& token) {
  const auto file = tokenFile();
  std::error_code ignored;
  if (!file) return;
  if (token.empty()) {
    std::filesystem::remove(*file, ignored);
    return;
  }
  std::filesystem::create_directories(file->parent_path(), ignored);
  const int handle = ::open(file->c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (handle < 0) return;
  if (::write(handle, token.data(), token.size()) < 0) std::filesystem::remove(*file, ignored);
  ::close(handle);
}

struct Unref {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using MessagePointer = std::unique_ptr<sd_bus_message, Unref>;
using SlotPointer = std::unique_ptr<sd_bus_slot, Unref>;

class BusError {
public:
  ~BusError() { sd_bus_error_free(&error); }
  std::string text(int code) const { return error.message ? error.message : std::strerror(-code); }
  bool isUnknownService() const {
    return sd_bus_error_has_name(&error, SD_BUS_ERROR_SERVICE_UNKNOWN) ||
           sd_bus_error_has_name(&error, SD_BUS_ERROR_NAME_HAS_NO_OWNER);
  }
  sd_bus_error error = SD_BUS_ERROR_NULL;
};

}  // namespace

void PortalSession::CloseBus::operator()(sd_bus* bus) const {
  sd_bus_flush_close_unref(bus);
}

/// One of the portal's requests.
struct PortalSession::Call {
  const char* method;
  const char* token;
  bool hasParentWindow = false;
  std::vector<std::pair<const char*, std::string>> texts = {};
  std::vector<std::pair<const char*, std::uint32_t>> numbers = {};
};

/// What its Response brought.
struct PortalSession::Answer {
  bool isThere = false;
  std::uint32_t code = 2;
  std::string session;
  std::string restoreToken;
  std::uint32_t node = 0;

  static int take(sd_bus_message* message, void* answer, sd_bus_error*) {
    static_cast<Answer*>(answer)->read(message);
    return 0;
  }

private:
  void read(sd_bus_message* message) {
    isThere = true;
    if (sd_bus_message_read(message, "u", &code) < 0 ||
        sd_bus_message_enter_container(message, 'a', "{sv}") < 0)
      return;
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
      readEntry(message);
      sd_bus_message_exit_container(message);
    }
  }
  void readEntry(sd_bus_message* message) {
    const char* key = "";
    const char* type = "";
    const char* value = "";
    if (sd_bus_message_read(message, "s", &key) < 0 ||
        sd_bus_message_peek_type(message, nullptr, &type) < 0)
      return;
    if (std::strcmp(key, "session_handle") == 0 && std::strcmp(type, "s") == 0) {
      if (sd_bus_message_read(message, "v", "s", &value) > 0) session = value;
    } else if (std::strcmp(key, "restore_token") == 0 && std::strcmp(type, "s") == 0) {
      if (sd_bus_message_read(message, "v", "s", &value) > 0) restoreToken = value;
    } else if (std::strcmp(key, "streams") == 0 && std::strcmp(type, "a(ua{sv})") == 0) {
      readStreams(message);
    } else {
      sd_bus_message_skip(message, "v");
    }
  }
  void readStreams(sd_bus_message* message) {
    if (sd_bus_message_enter_container(message, 'v', "a(ua{sv})") < 0 ||
        sd_bus_message_enter_container(message, 'a', "(ua{sv})") < 0)
      return;
    bool isFirst = true;
    while (sd_bus_message_enter_container(message, 'r', "ua{sv}") > 0) {
      std::uint32_t found = 0;
      if (sd_bus_message_read(message, "u", &found) > 0 && std::exchange(isFirst, false))
        node = found;
      sd_bus_message_skip(message, "a{sv}");
      sd_bus_message_exit_container(message);
    }
    sd_bus_message_exit_container(message);
    sd_bus_message_exit_container(message);
  }
};

PortalSession::PortalSession(const Ending& ending) : _ending(ending) {
  connect();
  createSession();
  auto token = readToken();
  try {
    selectSources(token);
  } catch (const SourceFailure&) {
    // A token that the desktop can't read: it asks again then.
    if (token.empty()) throw;
    writeToken({});
    createSession();
    selectSources({});
  }
  start();
}

PortalSession::~PortalSession() {
  if (!_session.empty() && _bus)
    sd_bus_call_method_async(_bus.get(), nullptr, portalName, _session.c_str(),
                             "org.freedesktop.portal.Session", "Close", nullptr, nullptr, nullptr);
}

void PortalSession::connect() {
  sd_bus* bus = nullptr;
  if (const int failed = sd_bus_open_user(&bus); failed < 0)
    throw SourceFailure(std::string("there is no session bus to ask for the screen: ") +
                        std::strerror(-failed));
  _bus.reset(bus);
  if ((property("AvailableSourceTypes") & (monitors | windows)) == 0)
    throw SourceFailure("the desktop's portal can't share screens");
}

std::uint32_t PortalSession::property(const char* name) {
  BusError problem;
  std::uint32_t value = 0;
  const int result = sd_bus_get_property_trivial(_bus.get(), portalName, portalPath, screenCast,
                                                 name, &problem.error, 'u', &value);
  if (result < 0 && problem.isUnknownService())
    throw SourceFailure("there is no desktop portal to ask for the screen");
  if (result < 0)
    throw SourceFailure("the desktop's portal can't share screens: " + problem.text(result));
  return value;
}

/// The answer comes as a signal on a path that is known beforehand: listen first, then call.
void PortalSession::request(const Call& call, Answer& answer) {
  const char* name = nullptr;
  sd_bus_get_unique_name(_bus.get(), &name);
  std::string sender = name ? name + 1 : "";
  std::replace(sender.begin(), sender.end(), '.', '_');
  const auto path = std::string(portalPath) + "/request/" + sender + "/" + call.token;
  sd_bus_slot* slot = nullptr;
  sd_bus_match_signal(_bus.get(), &slot, portalName, path.c_str(), "org.freedesktop.portal.Request",
                      "Response", Answer::take, &answer);
  const SlotPointer listening(slot);

  sd_bus_message* raw = nullptr;
  sd_bus_message_new_method_call(_bus.get(), &raw, portalName, portalPath, screenCast, call.method);
  const MessagePointer message(raw);
  if (!_session.empty()) sd_bus_message_append(raw, "o", _session.c_str());
  if (call.hasParentWindow) sd_bus_message_append(raw, "s", "");
  sd_bus_message_open_container(raw, 'a', "{sv}");
  sd_bus_message_append(raw, "{sv}", "handle_token", "s", call.token);
  for (const auto& [key, value] : call.texts)
    sd_bus_message_append(raw, "{sv}", key, "s", value.c_str());
  for (const auto& [key, value] : call.numbers) sd_bus_message_append(raw, "{sv}", key, "u", value);
  sd_bus_message_close_container(raw);
  BusError problem;
  sd_bus_message* reply = nullptr;
  const int result = sd_bus_call(_bus.get(), raw, 0, &problem.error, &reply);
  const MessagePointer replied(reply);
  if (result < 0)
    throw SourceFailure("the desktop's portal can't share the screen: " + problem.text(result));
  // The dialog is the user's time: no limit.
  while (!answer.isThere) {
    const int processed = sd_bus_process(_bus.get(), nullptr);
    if (processed < 0) throw SourceFailure("the session bus is gone");
    if (processed == 0 && !answer.isThere)
      _ending.wait(sd_bus_get_fd(_bus.get()), POLLIN, std::nullopt);
  }
}

void PortalSession::judge(std::uint32_t code, const char* step) const {
  if (code == 1) throw SourceRefused("the user did not allow the screen to be shared");
  if (code != 0) throw SourceFailure(std::string("the desktop's portal gave up in ") + step);
}

void PortalSession::createSession() {
  Answer answer;
  _session.clear();
  request({.method = "CreateSession",
           .token = "kestrova_create",
           .texts = {{"session_handle_token", "kestrova"}}},
          answer);
  judge(answer.code, "CreateSession");
  _session = answer.session;
  const auto noteClosed = [](sd_bus_message*, void* closed, sd_bus_error*) {
    *static_cast<bool*>(closed) = true;
    return 0;
  };
  sd_bus_match_signal(_bus.get(), nullptr, portalName, _session.c_str(),
                      "org.freedesktop.portal.Session", "Closed", noteClosed, &_isClosed);
}

void PortalSession::selectSources(const std::string& restoreToken) {
  Call call{.method = "SelectSources", .token = "kestrova_select"};
  const auto cursors = property("AvailableCursorModes");
  call.numbers.emplace_back("types", property("AvailableSourceTypes") & (monitors | windows));
  // A mode that isn't offered is an error.
  if (cursors & embeddedCursor)
    call.numbers.emplace_back("cursor_mode", embeddedCursor);
  else if (cursors & hiddenCursor)
    call.numbers.emplace_back("cursor_mode", hiddenCursor);
  if (property("version") >= firstThatRemembers) {
    call.numbers.emplace_back("persist_mode", untilRevoked);
    if (!restoreToken.empty()) call.texts.emplace_back("restore_token", restoreToken);
  }
  Answer answer;
  request(call, answer);
  judge(answer.code, "SelectSources");
}

void PortalSession::start() {
  Answer answer;
  request({.method = "Start", .token = "kestrova_start", .hasParentWindow = true}, answer);
  judge(answer.code, "Start");
  if (answer.node == 0) throw SourceFailure("the desktop's portal gave no stream");
  _node = answer.node;
  writeToken(answer.restoreToken);  // may be another one each time
}

int PortalSession::openPipeWireRemote() {
  BusError problem;
  sd_bus_message* reply = nullptr;
  const int result =
      sd_bus_call_method(_bus.get(), portalName, portalPath, screenCast, "OpenPipeWireRemote",
                         &problem.error, &reply, "oa{sv}", _session.c_str(), 0);
  const MessagePointer replied(reply);
  int handle = -1;
  if (result < 0 || sd_bus_message_read(reply, "h", &handle) < 0)
    throw SourceFailure("the desktop's portal gave no way to the stream: " + problem.text(result));
  return ::fcntl(handle, F_DUPFD_CLOEXEC, 3);  // the message closes its own
}

bool PortalSession::isClosed() {
  int processed = 0;
  do {
    processed = sd_bus_process(_bus.get(), nullptr);
  } while (processed > 0);
  return _isClosed || processed < 0;
}

}  // namespace kestrova::broadcast
