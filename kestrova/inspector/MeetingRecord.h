#pragma once

#include <kestrova/inspector/RecordTypes.h>
#include <kestrova/inspector/TraceRecord.h>

#include <boost/json/object.hpp>

#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova::inspector {

/// Who hears of every change to a record, in the form in which pages get it.
class RecordReader {
public:
  virtual ~RecordReader() = default;
  /// While false, nothing is put into words.
  virtual bool isReading() const = 0;
  virtual void changed(std::string_view event, const Dictionary& data) = 0;
};

/// What a meeting was like in the last two minutes. Grows no further however long it lasts. What
/// names somebody unknown is left out. One thread.
class MeetingRecord {
public:
  static constexpr Ms kept = 120'000;

  /// \param reader must outlive the record
  explicit MeetingRecord(RecordReader& reader) : _reader(reader) {}

  void meetingIs(MeetingFacts meeting);
  /// Somebody comes, or comes back.
  void participantCame(ParticipantFacts participant);
  void participantLeft(const std::string& id, Ms when);
  void modeChanged(const std::string& id, std::string mode);
  void streamStarted(const std::string& participantId, StreamFacts stream);
  void streamEnded(const std::string& id, Ms when);
  void streamStateChanged(const std::string& id, std::string state);
  /// \param codec empty while it isn't known
  void sampled(const std::string& streamId, const StreamSample& sample, const std::string& codec);
  void marked(Mark mark);
  void spanStarted(SpanFacts span);
  void spanEnded(SpanEnding ending);
  void eventHappened(EventFacts event);

  /// The streams of one tick are told together: whether there are some that weren't yet.
  bool hasSamplesToTell() const { return !_untold.empty(); }
  void tellSamples();

  /// All of it, as JSON text. Tells the samples first, so that no page gets one twice.
  std::string snapshot(Ms now);

private:
  struct Stream {
    std::string participantId;
    StreamFacts facts;
    std::deque<StreamSample> samples;
  };

  ParticipantFacts* participant(const std::string& id);
  Stream* stream(const std::string& id);
  void end(Stream& stream, Ms when);
  void tell(const ParticipantFacts& participant);
  void tell(const Stream& stream);
  void forget(Ms now);
  List streamsOf(const std::string& participantId) const;
  List people() const;

  RecordReader& _reader;
  MeetingFacts _meeting;
  std::vector<ParticipantFacts> _participants;  // in the order of their coming
  std::vector<Stream> _streams;
  std::deque<Mark> _marks;
  TraceRecord _trace;
  Ms _untoldAt = 0;
  Dictionary _untold;  // by the stream's id
};

}  // namespace kestrova::inspector
