#include <kestrova/inspector/RecordJson.h>
#include <kestrova/inspector/TraceRecord.h>
#include <kestrova/platform/Values.h>

#include <utility>

namespace kestrova::inspector {
namespace {

void shortenAll(TraceAttributes& attributes) {
  for (auto& [key, value] : attributes) shorten(value);
}

std::size_t weight(const TraceAttributes& attributes) {
  constexpr std::size_t node = 100;
  std::size_t sum = 0;
  for (const auto& [key, value] : attributes) sum += node + key.size() + value.size();
  return sum;
}

bool isOver(const SpanFacts& span, Ms before) {
  return span.durationMs && span.start + *span.durationMs < before;
}

void append(std::string& json, const Dictionary& object) {
  if (json.back() != '[') json += ',';
  json += boost::json::serialize(object);
}

}  // namespace

void shorten(std::string& text) {
  if (text.size() <= longestText) return;
  auto end = longestText;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  text.resize(end);
  text += "…";
}

std::size_t weight(const SpanFacts& span) {
  return sizeof span + span.name.size() + span.message.size() + weight(span.attributes);
}

std::size_t weight(const SpanEnding& ending) {
  return sizeof ending + ending.name.size() + ending.message.size() + weight(ending.attributes);
}

std::size_t weight(const EventFacts& event) {
  return sizeof event + event.name.size() + weight(event.attributes);
}

const SpanFacts& TraceRecord::started(SpanFacts span) {
  shorten(span.name);
  shortenAll(span.attributes);
  _numbers[span.id] = _spans.nextNumber();
  _spans.push(std::move(span));
  while (_spans.isTooMuch()) forgetSpan();
  return _spans.entries().back();
}

const SpanFacts& TraceRecord::ended(SpanEnding ending) {
  shorten(ending.message);
  shortenAll(ending.attributes);
  const auto known = _numbers.find(ending.id);
  if (known == _numbers.end())
    return started({.id = std::move(ending.id),
                    .name = std::move(ending.name),
                    .start = ending.t - ending.durationMs,
                    .durationMs = ending.durationMs,
                    .success = ending.success,
                    .message = std::move(ending.message),
                    .attributes = std::move(ending.attributes),
                    .category = std::move(ending.category)});
  return _spans.change(known->second, [&](SpanFacts& span) {
    span.durationMs = ending.durationMs;
    span.success = ending.success;
    span.message = std::move(ending.message);
    for (auto& [key, value] : ending.attributes)
      span.attributes.insert_or_assign(key, std::move(value));
  });
}

const EventFacts& TraceRecord::happened(EventFacts event) {
  shorten(event.name);
  shortenAll(event.attributes);
  _events.push(std::move(event));
  while (_events.isTooMuch()) _events.drop();
  return _events.entries().back();
}

void TraceRecord::appendSpans(std::string& json, Ms oldest) const {
  for (const auto& span : _spans.entries())
    if (!isOver(span, oldest)) append(json, toJson(span));
}

void TraceRecord::appendEvents(std::string& json, Ms oldest) const {
  for (const auto& event : _events.entries())
    if (event.t >= oldest) append(json, toJson(event));
}

void TraceRecord::forget(Ms oldest) {
  while (!_spans.entries().empty() && isOver(_spans.entries().front(), oldest)) forgetSpan();
  while (!_events.entries().empty() && _events.entries().front().t < oldest) _events.drop();
}

void TraceRecord::forgetSpan() {
  _numbers.erase(_spans.entries().front().id);
  _spans.drop();
}

}  // namespace kestrova::inspector
