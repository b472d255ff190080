#include <kestrova/inspector/Clock.h>
#include <kestrova/inspector/MeetingRecord.h>
#include <kestrova/inspector/TraceWatch.h>
#include <kestrova/tracing/SdkTracer.h>

#include <utility>

namespace kestrova::inspector {
namespace {

class Listener final : public InspectorListener {
public:
  explicit Listener(std::shared_ptr<Inbox> inbox) : _inbox(std::move(inbox)) {}

  void onNewEvent(const InspectorEvent& event) override {
    switch (event.type) {
      case InspectorEvent::EventType::spanStarted:
        return started(event);
      case InspectorEvent::EventType::spanEnded:
        return ended(event);
      case InspectorEvent::EventType::event:
      case InspectorEvent::EventType::log:
        return happened(event);
    }
  }

private:
  void started(const InspectorEvent& event) {
    put(SpanFacts{.id = event.id,
                  .parentId = event.parentId,
                  .name = event.name,
                  .start = event.timestamp,
                  .attributes = event.attributes,
                  .category = std::string(rawValue(event.category))},
        &MeetingRecord::spanStarted);
  }
  void ended(const InspectorEvent& event) {
    put(SpanEnding{.id = event.id,
                   .name = event.name,
                   .t = event.timestamp,
                   .durationMs = event.durationMs.value_or(0),
                   .success = event.success.value_or(true),
                   .message = event.message.value_or(""),
                   .attributes = event.attributes,
                   .category = std::string(rawValue(event.category))},
        &MeetingRecord::spanEnded);
  }
  void happened(const InspectorEvent& event) {
    put(EventFacts{.t = event.timestamp,
                   .name = event.name,
                   .parentId = event.parentId,
                   .category = std::string(rawValue(event.category)),
                   .success = event.success,
                   .attributes = event.attributes},
        &MeetingRecord::eventHappened);
  }
  template <class Facts>
  void put(Facts facts, void (MeetingRecord::*take)(Facts)) {
    const auto bytes = weight(facts);
    _inbox->putTrace([facts = std::move(facts),
                      take](MeetingRecord& record) mutable { (record.*take)(std::move(facts)); },
                     bytes);
  }

  const std::shared_ptr<Inbox> _inbox;
};

std::shared_ptr<InspectorOutput> makeOutput() {
  // The record keeps what is needed; the output's own list is of no use here.
  return std::make_shared<InspectorOutput>(
      InspectorOutputOptions{.maxBufferSize = 1, .wallClockMs = now});
}

}  // namespace

TraceWatch::TraceWatch(const std::shared_ptr<Inbox>& inbox)
    : _listener(std::make_shared<Listener>(inbox)), _output(makeOutput()) {
  _output->setListener(_listener);
  SdkTracer::shared().registerOutput(_output);
}

TraceWatch::~TraceWatch() {
  SdkTracer::shared().removeOutput(_output);
}

}  // namespace kestrova::inspector
