#pragma once

#include <kestrova/inspector/RecordTypes.h>

#include <boost/json/object.hpp>

#include <deque>
#include <string>

/// The shapes in which pages, and the files that they save, get what is recorded.
namespace kestrova::inspector {

Dictionary toJson(const MeetingFacts& meeting);
/// Without its streams.
Dictionary toJson(const ParticipantFacts& participant);
/// Without its samples.
Dictionary toJson(const StreamFacts& stream);
Dictionary toJson(const Mark& mark);
Dictionary toJson(const SpanFacts& span);
Dictionary toJson(const EventFacts& event);
/// The figures in their order, the time left out.
List figures(const StreamSample& sample);
/// The same with the time first.
List timedFigures(const StreamSample& sample);

}  // namespace kestrova::inspector
