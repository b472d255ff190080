#include <kestrova/inspector/MeetingRecord.h>
#include <kestrova/inspector/RecordJson.h>
#include <kestrova/platform/Values.h>

#include <algorithm>
#include <utility>

namespace kestrova::inspector {
namespace {

// Of a service that lets people come and go without an end.
constexpr std::size_t mostMarks = 5000;
constexpr std::ptrdiff_t mostGone = 500;
// Some ticks more than two minutes have.
constexpr std::size_t mostSamples = 120;

/// Takes away those that are gone since before `oldest`, and the first ones of too many.
template <class Entries, class WhenGone>
void forgetGone(Entries& entries, Ms oldest, WhenGone whenGone) {
  auto tooMany =
      std::count_if(entries.begin(), entries.end(), [&](auto& each) { return !!whenGone(each); }) -
      mostGone;
  std::erase_if(entries, [&](auto& each) {
    const std::optional<Ms> gone = whenGone(each);
    const bool surplus = gone && tooMany-- > 0;
    return gone && (surplus || *gone < oldest);
  });
}

}  // namespace

// ---- What happens ------------------------------------------------------------------------------

void MeetingRecord::meetingIs(MeetingFacts meeting) {
  if (meeting == _meeting) return;
  _meeting = std::move(meeting);
  if (_reader.isReading()) _reader.changed("meeting", toJson(_meeting));
}

void MeetingRecord::participantCame(ParticipantFacts facts) {
  shorten(facts.name);
  auto* known = participant(facts.id);
  if (known)
    *known = std::move(facts);
  else
    known = &_participants.emplace_back(std::move(facts));
  tell(*known);
}

void MeetingRecord::participantLeft(const std::string& id, Ms when) {
  auto* const leaving = participant(id);
  if (!leaving || leaving->leftAt) return;
  for (auto& each : _streams)
    if (each.participantId == id) end(each, when);
  leaving->leftAt = when;
  tell(*leaving);
  forget(when);
}

void MeetingRecord::modeChanged(const std::string& id, std::string mode) {
  auto* const changing = participant(id);
  if (!changing || changing->mode == mode) return;
  changing->mode = std::move(mode);
  tell(*changing);
}

void MeetingRecord::streamStarted(const std::string& participantId, StreamFacts facts) {
  if (!participant(participantId) || stream(facts.id)) return;
  tell(_streams.emplace_back(Stream{participantId, std::move(facts), {}}));
}

void MeetingRecord::streamEnded(const std::string& id, Ms when) {
  auto* const ending = stream(id);
  if (!ending) return;
  end(*ending, when);
  forget(when);
}

void MeetingRecord::end(Stream& ending, Ms when) {
  if (ending.facts.endedAt) return;
  ending.facts.endedAt = when;
  tell(ending);
}

void MeetingRecord::streamStateChanged(const std::string& id, std::string state) {
  auto* const changing = stream(id);
  if (!changing || changing->facts.state == state) return;
  changing->facts.state = std::move(state);
  tell(*changing);
}

void MeetingRecord::sampled(const std::string& streamId, const StreamSample& sample,
                            const std::string& codec) {
  auto* const flowing = stream(streamId);
  if (!flowing || flowing->facts.endedAt) return;
  auto& samples = flowing->samples;
  samples.push_back(sample);
  while (samples.size() > mostSamples) samples.pop_front();
  if (!codec.empty() && codec != flowing->facts.codec) {
    flowing->facts.codec = codec;
    tell(*flowing);
  }
  if (!_reader.isReading()) return;
  if (_untold.contains(streamId)) tellSamples();  // its next tick
  if (_untold.empty()) _untoldAt = sample.t;
  _untold[streamId] = figures(sample);
}

void MeetingRecord::tellSamples() {
  if (_untold.empty()) return;
  const auto streams = std::exchange(_untold, {});
  if (_reader.isReading()) _reader.changed("samples", {{"t", _untoldAt}, {"streams", streams}});
}

void MeetingRecord::marked(Mark mark) {
  shorten(mark.text);
  if (_reader.isReading()) _reader.changed("mark", toJson(mark));
  const auto now = mark.t;
  _marks.push_back(std::move(mark));
  forget(now);
}

void MeetingRecord::spanStarted(SpanFacts facts) {
  const auto now = facts.start;
  const auto& span = _trace.started(std::move(facts));
  if (_reader.isReading()) _reader.changed("span", toJson(span));
  _trace.forget(now - kept);
}

void MeetingRecord::spanEnded(SpanEnding ending) {
  const auto& span = _trace.ended(std::move(ending));
  if (_reader.isReading()) _reader.changed("span", toJson(span));
}

void MeetingRecord::eventHappened(EventFacts facts) {
  const auto now = facts.t;
  const auto& event = _trace.happened(std::move(facts));
  if (_reader.isReading()) _reader.changed("event", toJson(event));
  _trace.forget(now - kept);
}

// ---- Who is there ------------------------------------------------------------------------------

ParticipantFacts* MeetingRecord::participant(const std::string& id) {
  const auto found = std::find_if(_participants.begin(), _participants.end(),
                                  [&](const auto& each) { return each.id == id; });
  return found == _participants.end() ? nullptr : &*found;
}

MeetingRecord::Stream* MeetingRecord::stream(const std::string& id) {
  const auto found = std::find_if(_streams.begin(), _streams.end(),
                                  [&](const auto& each) { return each.facts.id == id; });
  return found == _streams.end() ? nullptr : &*found;
}

void MeetingRecord::tell(const ParticipantFacts& participant) {
  if (_reader.isReading()) _reader.changed("participant", toJson(participant));
}

void MeetingRecord::tell(const Stream& stream) {
  if (!_reader.isReading()) return;
  _reader.changed("stream",
                  {{"participantId", stream.participantId}, {"stream", toJson(stream.facts)}});
}

void MeetingRecord::forget(Ms now) {
  const auto oldest = now - kept;
  forgetGone(_streams, oldest, [](const Stream& each) { return each.facts.endedAt; });
  forgetGone(_participants, oldest, [](const ParticipantFacts& each) { return each.leftAt; });
  for (auto& each : _streams)
    while (!each.samples.empty() && each.samples.front().t < oldest) each.samples.pop_front();
  while (!_marks.empty() && (_marks.size() > mostMarks || _marks.front().t < oldest))
    _marks.pop_front();
  _trace.forget(oldest);
}

// ---- All of it ---------------------------------------------------------------------------------

List MeetingRecord::streamsOf(const std::string& participantId) const {
  List streams;
  for (const auto& each : _streams) {
    if (each.participantId != participantId) continue;
    List samples;
    samples.reserve(each.samples.size());
    for (const auto& sample : each.samples) samples.push_back(timedFigures(sample));
    auto object = toJson(each.facts);
    object["samples"] = std::move(samples);
    streams.push_back(std::move(object));
  }
  return streams;
}

List MeetingRecord::people() const {
  List participants;
  for (const auto& each : _participants) {
    auto object = toJson(each);
    object["streams"] = streamsOf(each.id);
    participants.push_back(std::move(object));
  }
  return participants;
}

std::string MeetingRecord::snapshot(Ms now) {
  tellSamples();
  forget(now);
  List marks;
  for (const auto& mark : _marks) marks.push_back(toJson(mark));
  auto json = boost::json::serialize(Dictionary{{"format", "kestrova-inspector"},
                                                {"version", 1},
                                                {"now", now},
                                                {"meeting", toJson(_meeting)},
                                                {"participants", people()},
                                                {"marks", std::move(marks)}});
  // The trace may be long: not as one value, which would take several times its text.
  json.pop_back();
  json += ",\"spans\":[";
  _trace.appendSpans(json, now - kept);
  json += "],\"events\":[";
  _trace.appendEvents(json, now - kept);
  json += "]}";
  return json;
}

}  // namespace kestrova::inspector
