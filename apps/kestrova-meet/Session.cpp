#include "Session.h"

#include <kestrova/session/Kestrova.h>

#include "Snapshot.h"
#include "Text.h"
#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <set>
#include <utility>

namespace kestrova::meet {
namespace {

using namespace std::chrono_literals;

constexpr auto tickPeriod = 250ms;
constexpr int ticksPerMeasure = 4;
// A service that takes the connection and then says nothing would be waited for without an end.
constexpr auto longestConnecting = 30s;
constexpr auto longestLeaving = 3s;

/// Codes with which a service says that the token doesn't open this meeting.
constexpr std::array refusals = {4001, 4002, 4006, 4007, 4008, 4022, 4023, 4024, 4025, 4053};

bool refusesToken(std::int64_t code) {
  return std::find(refusals.begin(), refusals.end(), code) != refusals.end();
}

}  // namespace

Session::Session(boost::asio::io_context& loop, const Options& options, Report& report)
    : _loop(loop),
      _options(options),
      _report(report),
      _signals(loop, SIGINT, SIGTERM),
      _ticker(loop),
      _deadline(loop),
      _watcher(std::make_shared<MeetingWatcher>(report, *this, options.record)) {}

Session::~Session() = default;

Summary Session::run() {
  awaitSignal();
  Kestrova::setLogLevel(_options.verbose ? LogLevel::all : LogLevel::none);
  Kestrova::configureCapture(_options.capture);
  Kestrova::configureScreenShare(_options.screenShare);
  Kestrova::config(_options.token);
  // A camera that has no background yet would show the room.
  const bool showsAtOnce = _options.capture.camera != "none" && _options.background.empty();
  _meeting = Kestrova::initMeeting({.meetingId = _options.meeting,
                                    .participantId = _options.participant,
                                    .participantName = _options.name,
                                    .micEnabled = _options.capture.microphone != "none",
                                    .webcamEnabled = showsAtOnce,
                                    .mode = _options.mode,
                                    .signalingBaseUrl = _options.service});
  _picture = std::make_unique<Picture>(*_meeting, *_watcher, _options.background,
                                       _options.snapshot.value_or("."));
  listen();
  inspect();
  _deadline.expires_after(longestConnecting);
  _deadline.async_wait([this](const boost::system::error_code& error) {
    if (!error) end(exitNotJoined, _options.service + " doesn't answer");
  });
  _meeting->join();
  takeInput();
  tick();
  _loop.run();
  _keyboard.reset();
  if (_chat) _chat->release();
  _inspector.reset();
  _controls.reset();
  _picture.reset();

  auto summary = summarise();
  _meeting->removeAllEventListeners();
  _meeting.reset();
  return summary;
}

void Session::listen() {
  _meeting->addEventListener(_watcher);
  _watcher->start(*_meeting);
  _services = std::make_shared<ServiceWatch>(*_meeting, *_watcher);
  _meeting->addEventListener(_services);
  _relays = std::make_shared<RelayWatch>(*_watcher, _options.acceptRelays);
  _meeting->addEventListener(_relays);
  _audio = std::make_shared<AudioWatch>(*_meeting, *_watcher);
  _meeting->addEventListener(_audio);
  _characters = std::make_shared<Characters>(_loop, *_meeting, *_watcher);
  _meeting->addEventListener(_characters);
}

void Session::inspect() {
  if (!_options.inspect) return;
  _inspector = std::make_unique<Inspector>(_meeting, Inspector::Options{*_options.inspect});
  const auto address = _inspector->address();
  _watcher->note("inspector", {{"address", address}}, "inspector " + address);
}

void Session::awaitSignal() {
  _signals.async_wait([this](const boost::system::error_code& error, int signal) {
    if (error) return;
    _signals.clear();  // the next one ends the process
    Keyboard::guard({SIGINT, SIGTERM});
    if (signal == SIGTERM)
      end(exitTerminated, "terminated");
    else
      end(exitInterrupted, "interrupted");
  });
}

void Session::takeInput() {
  if (_options.chat) {
    _chat = std::make_unique<Chat>(_loop, *_meeting, *_watcher, *_characters, _report, _options,
                                   [this] {
                                     if (!_options.duration) end(exitGood, {});
                                   });
    return;
  }
  if (_options.json) return;
  _controls = std::make_unique<Controls>(*_meeting, *_watcher, *_services, *_picture, *_audio,
                                         [this] { end(exitGood, {}); });
  _keyboard = Keyboard::open(_loop, [this](char key) { _controls->press(key); });
  if (_keyboard) _watcher->note("key", Controls::help());
}

void Session::tick() {
  if (_ticks++ % ticksPerMeasure == 0) {
    _watcher->measure();
    _characters->measure();
  }
  _report.tick(sample());
  _ticker.expires_after(tickPeriod);
  _ticker.async_wait([this](const boost::system::error_code& error) {
    if (!error) tick();
  });
}

Sample Session::sample() const {
  auto sample = _watcher->sample();
  for (auto& row : _characters->rows()) sample.people.push_back(std::move(row));
  sample.services = _services->lines();
  if (_inspector) sample.inspector = _inspector->address();
  return sample;
}

// ---- The course of the meeting -----------------------------------------------------------------

void Session::joined() {
  const bool first = !std::exchange(_joined, true);
  if (_ending) return;
  const bool showsUs = sendsMedia(_options.mode) && _options.capture.camera != "none";
  if (showsUs && !_options.background.empty()) _picture->bring();
  if (first) bringWhatIsWished();  // before the chat talks to it
  if (_chat) _chat->joined();
  if (!first) return;
  _deadline.cancel();
  if (!_options.duration) return;
  _deadline.expires_after(*_options.duration);
  _deadline.async_wait([this](const boost::system::error_code& error) {
    if (!error) end(exitGood, {});
  });
}

void Session::bringWhatIsWished() {
  for (const auto service : _options.start) _services->start(service);
  if (_options.screen) _meeting->enableScreenShare();
  if (!_options.relayTo.empty())
    _meeting->requestMediaRelay(_options.relayTo, _options.relayToken.empty()
                                                      ? std::nullopt
                                                      : std::optional(_options.relayToken));
  if (_options.character.empty()) return;
  CharacterConfig config{.characterId = _options.character};
  if (!_options.characterName.empty()) config.displayName = _options.characterName;
  _characters->bring(std::move(config));
}

void Session::stateChanged(MeetingState state) {
  if (_chat && state == MeetingState::RECONNECTING) _chat->away();
  // From here on the library has a time-out for every answer, and a moderator may take their time.
  if (state == MeetingState::CONNECTED && !_joined && !_ending) _deadline.cancel();
  if (state == MeetingState::FAILED)
    end(exitNotJoined, "the meeting can't be joined at " + _options.service);
}

void Session::failed(const KestrovaError& error) {
  if (!endsWith(error)) return;
  if (refusesToken(code(error)))
    end(exitRefused, "the service refused the token: " + text(error));
  else
    end(exitNotJoined, "can't join at " + _options.service + ": " + text(error));
}

bool Session::endsWith(const KestrovaError& error) const {
  return !_joined && !_ending &&
         (refusesToken(code(error)) || error == KestrovaError::ERROR_UNABLE_TO_JOIN_MEETING);
}

/// A service that looks at the token late says so while the connection is set up, as JSON text.
void Session::connectionFailed(const std::string& message) {
  const auto refusal = parseDictionary(message);
  const auto* data = dictionary(refusal, "data");
  const auto code = data ? integer(*data, "code", 0) : 0;
  if (_joined || !refusesToken(code)) return;
  end(exitRefused,
      "the service refused the token: " + std::to_string(code) + " " + text(*data, "message", ""));
}

void Session::entryDenied() {
  end(exitNotJoined, "entry to the meeting was denied");
}

void Session::over(LeaveReason reason) {
  _over = true;
  if (_ending) {
    finish();
    return;
  }
  const bool lost = reason == LeaveReason::websocketConnectionAttemptsExhausted ||
                    reason == LeaveReason::websocketDisconnected;
  const std::string why(message(reason));
  if (!_joined)
    end(exitNotJoined, "the meeting can't be joined: " + why);
  else if (lost)
    end(exitNotJoined, "the connection to the service was lost: " + why);
  else
    end(exitEnded, "the meeting ended: " + why);
}

void Session::end(ExitCode code, std::string problem) {
  if (std::exchange(_ending, true)) return;
  _code = code;
  _problem = std::move(problem);
  if (!_joined || _over) {
    finish();
    return;
  }
  _deadline.expires_after(longestLeaving);
  _deadline.async_wait([this](const boost::system::error_code& error) {
    if (!error) finish();
  });
  _characters->dismiss([this] {
    if (!_over) _meeting->leave();
  });
}

void Session::finish() {
  _ticker.cancel();
  _deadline.cancel();
  _signals.cancel();
  _report.tick(sample());
  _loop.stop();
}

// ---- Afterwards --------------------------------------------------------------------------------

Summary Session::summarise() {
  Summary summary{.meeting = _options.meeting,
                  .id = _meeting->localParticipant()->id(),
                  .name = _options.name,
                  .joined = _watcher->joinedAfter(),
                  .exitCode = _code,
                  .problem = _problem};
  for (const auto& person : _watcher->remotes())
    summary.remotes.push_back(person->summary(_watcher->started()));
  summary.characters = _characters->summaries();
  if (_options.snapshot) writeSnapshots(summary);
  if (_chat) summariseChat(summary);
  const auto unwritten = _watcher->finishRecordings();
  if (!unwritten.empty() && summary.exitCode == exitGood) {
    summary.exitCode = exitNoMedia;
    summary.problem = unwritten;
  }

  const auto expected = static_cast<std::size_t>(_options.expect);
  if (summary.exitCode == exitGood && summary.flowing() < expected) {
    summary.exitCode = exitNoMedia;
    summary.problem = "picture and sound came from " + std::to_string(summary.flowing()) + " of " +
                      std::to_string(expected) + " expected participants";
  }
  return summary;
}

void Session::summariseChat(Summary& summary) const {
  auto times = _chat->topic().roundTrips();
  summary.messagesBack = times.size();
  if (!times.empty()) {
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    summary.messageRoundTripMs = std::round(middle->count() * 100) / 100;
  }
  if (summary.exitCode != exitGood || _chat->failures() == 0) return;
  summary.exitCode = exitNotSaid;
  summary.problem = std::to_string(_chat->failures()) + " lines could not be done";
}

void Session::writeSnapshots(Summary& summary) {
  std::set<std::string> taken;
  try {
    std::filesystem::create_directories(*_options.snapshot);
    for (std::size_t i = 0; i < summary.remotes.size(); ++i) {
      auto& remote = summary.remotes[i];
      const auto frame = _watcher->remotes()[i]->lastPicture();
      if (!frame.buffer) continue;
      const auto base =
          recording::fileNameOf(_options.name) + "-sees-" + recording::fileNameOf(remote.name);
      auto name = base;
      for (int copy = 2; !taken.insert(name).second; ++copy)
        name = base + "-" + std::to_string(copy);
      const auto path = *_options.snapshot / (name + ".png");
      writePng(frame, path);
      remote.snapshot = path.string();
    }
  } catch (const std::exception& error) {
    if (summary.exitCode != exitGood) return;
    summary.exitCode = exitNoMedia;
    summary.problem = error.what();
  }
}

}  // namespace kestrova::meet
