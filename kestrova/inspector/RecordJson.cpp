#include <kestrova/inspector/RecordJson.h>
#include <kestrova/platform/Values.h>

#include <cmath>

namespace kestrova::inspector {
namespace {

template <class T>
Value orNull(const std::optional<T>& value) {
  return value ? Value(*value) : Value(nullptr);
}

/// A number as short as the eye needs it. What isn't finite is no JSON.
Value figure(const std::optional<double>& value) {
  constexpr double steps = 1000;
  constexpr double exact = 9e12;  // in whole steps, without losing any
  if (!value || !std::isfinite(*value)) return nullptr;
  if (std::abs(*value) > exact) return *value;
  const double rounded = std::round(*value * steps) / steps;
  const auto whole = static_cast<std::int64_t>(rounded);
  if (static_cast<double>(whole) == rounded) return whole;
  return rounded;
}

Dictionary texts(const TraceAttributes& attributes) {
  Dictionary out;
  out.reserve(attributes.size());
  for (const auto& [key, value] : attributes) out[key] = value;
  return out;
}

}  // namespace

Dictionary toJson(const MeetingFacts& meeting) {
  return {{"id", meeting.id},
          {"localParticipantId", meeting.localParticipantId},
          {"state", meeting.state}};
}

Dictionary toJson(const ParticipantFacts& participant) {
  return {{"id", participant.id},
          {"name", participant.name},
          {"local", participant.local},
          {"mode", participant.mode},
          {"joinedAt", participant.joinedAt},
          {"leftAt", orNull(participant.leftAt)}};
}

Dictionary toJson(const StreamFacts& stream) {
  return {{"id", stream.id},
          {"kind", stream.kind},
          {"startedAt", stream.startedAt},
          {"endedAt", orNull(stream.endedAt)},
          {"state", stream.state},
          {"codec", stream.codec}};
}

Dictionary toJson(const Mark& mark) {
  Dictionary out{{"t", mark.t}, {"kind", mark.kind}, {"text", mark.text}};
  if (mark.participantId) out["participantId"] = *mark.participantId;
  if (mark.streamId) out["streamId"] = *mark.streamId;
  if (mark.code) out["code"] = *mark.code;
  return out;
}

Dictionary toJson(const SpanFacts& span) {
  return {{"id", span.id},
          {"parentId", orNull(span.parentId)},
          {"name", span.name},
          {"start", span.start},
          {"durationMs", orNull(span.durationMs)},
          {"success", orNull(span.success)},
          {"message", span.message},
          {"attributes", texts(span.attributes)},
          {"category", span.category}};
}

Dictionary toJson(const EventFacts& event) {
  return {{"t", event.t},
          {"name", event.name},
          {"parentId", orNull(event.parentId)},
          {"category", event.category},
          {"success", orNull(event.success)},
          {"attributes", texts(event.attributes)}};
}

List figures(const StreamSample& sample) {
  return {figure(sample.bitrateKbps), figure(sample.framesPerSecond), figure(sample.width),
          figure(sample.height),      figure(sample.roundTripMs),     figure(sample.lossPercent),
          figure(sample.jitterMs),    figure(sample.level),           figure(sample.freezes)};
}

List timedFigures(const StreamSample& sample) {
  auto list = figures(sample);
  list.insert(list.begin(), sample.t);
  return list;
}

}  // namespace kestrova::inspector
