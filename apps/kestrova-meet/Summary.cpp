#include "Report.h"
#include "Text.h"
#include <algorithm>

namespace kestrova::meet {
namespace {

Value orNull(const std::optional<std::chrono::milliseconds>& time) {
  return time ? Value(time->count()) : Value(nullptr);
}

Dictionary toJson(const RemoteSummary& remote) {
  return {{"id", remote.id},
          {"name", remote.name},
          {"frames", remote.frames},
          {"width", remote.width},
          {"height", remote.height},
          {"firstPictureMs", orNull(remote.firstPicture)},
          {"soundHeard", remote.soundHeard},
          {"hertz", remote.hertz ? Value(*remote.hertz) : Value(nullptr)},
          {"flowed", remote.flowed()},
          {"snapshot", remote.snapshot.empty() ? Value(nullptr) : Value(remote.snapshot)}};
}

List toJson(const std::vector<RemoteSummary>& all) {
  List list;
  for (const auto& each : all) list.push_back(toJson(each));
  return list;
}

std::string sound(const RemoteSummary& remote) {
  if (!remote.soundHeard) return "no sound";
  return remote.hertz ? "sound heard at " + fixed(*remote.hertz, 1) + " Hz" : "sound heard";
}

std::string line(const RemoteSummary& remote) {
  std::string out = printable(remote.name) + ": ";
  if (remote.frames == 0) {
    out += "no picture";
  } else {
    out += "first picture after " +
           std::to_string(remote.firstPicture.value_or(std::chrono::milliseconds(0)).count()) +
           " ms, " + std::to_string(remote.frames) + " pictures, last " +
           std::to_string(remote.width) + "x" + std::to_string(remote.height);
  }
  out += ", " + sound(remote) + "\n";
  if (!remote.snapshot.empty()) out += "  last picture: " + remote.snapshot + "\n";
  return out;
}

}  // namespace

std::size_t Summary::flowing() const {
  return static_cast<std::size_t>(
      std::count_if(remotes.begin(), remotes.end(), [](const auto& r) { return r.flowed(); }));
}

Dictionary Summary::toJson() const {
  return {{"event", "summary"},
          {"meeting", meeting},
          {"id", id},
          {"name", name},
          {"joinedMs", orNull(joined)},
          {"remotes", meet::toJson(remotes)},
          {"characters", meet::toJson(characters)},
          {"messageRoundTripMs", messageRoundTripMs ? Value(*messageRoundTripMs) : Value(nullptr)},
          {"messagesBack", messagesBack},
          {"exitCode", exitCode},
          {"problem", problem.empty() ? Value(nullptr) : Value(problem)}};
}

std::string Summary::text() const {
  std::string out;
  out += joined ? "joined after " + std::to_string(joined->count()) + " ms\n" : "never joined\n";
  for (const auto& remote : remotes) out += line(remote);
  for (const auto& each : characters)
    out += printable(each.name) + " (a character): " + sound(each) + "\n";
  if (messageRoundTripMs)
    out += "messages there and back in " + fixed(*messageRoundTripMs, 1) + " ms (median of " +
           std::to_string(messagesBack) + ")\n";
  if (joined && remotes.empty()) out += "nobody else was there\n";
  return out;
}

}  // namespace kestrova::meet
