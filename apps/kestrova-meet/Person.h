#pragma once

#include <kestrova/session/Participant.h>
#include <kestrova/session/ParticipantEventListener.h>

#include "PictureWatch.h"
#include "Report.h"
#include "SoundWatch.h"
#include "StreamRates.h"
#include "support/Recording.h"
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace kestrova::meet {

/// Watches one participant for as long as the program runs: their streams, and for remote ones what
/// is seen and heard of them. Used on the main queue only.
class Person final : public ParticipantEventListener, public std::enable_shared_from_this<Person> {
public:
  using Clock = std::chrono::steady_clock;
  /// Event name, details for JSON, and a line for people.
  using Teller = std::function<void(std::string_view, Dictionary, std::string)>;

  /// \param recorded gets the camera and the microphone; may be null
  static std::shared_ptr<Person> make(const std::shared_ptr<Participant>& participant, Teller tell,
                                      std::shared_ptr<recording::Recording> recorded);

  /// A participant may come again, as another object of the same id.
  void came(const std::shared_ptr<Participant>& participant);
  void left();
  /// Nothing once they have left.
  std::shared_ptr<Participant> participant() const { return _participant.lock(); }
  /// \returns what went wrong with it, or nothing
  std::string finishRecording();

  /// Once a second: frame rate, and new statistics of every stream.
  void measure(Clock::time_point now);
  PersonRow row() const;
  RemoteSummary summary(Clock::time_point joinStarted) const;
  /// The last picture, of the camera or else of the shared screen.
  VideoFrame lastPicture() const;

  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>& participant) override;
  void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                        const std::shared_ptr<Participant>& participant) override;

private:
  struct Watched {
    std::shared_ptr<MediaStream> stream;
    StreamRates rates;
  };
  Person(std::string id, std::string name, bool local, Teller tell);
  void prepare();
  void watch(const std::shared_ptr<MediaStream>& stream);
  void tell(std::string_view event, Dictionary details, const std::string& line);
  const std::shared_ptr<PictureWatch>& shownPicture() const;
  static Task<void> takeStats(std::weak_ptr<Person> weak, std::shared_ptr<MediaStream> stream);

  const std::string _id;
  const std::string _name;
  const bool _local;
  const Teller _tell;
  bool _here = true;
  std::weak_ptr<Participant> _participant;
  std::map<std::string, Watched> _streams;
  std::shared_ptr<PictureWatch> _camera;
  std::shared_ptr<PictureWatch> _share;
  std::shared_ptr<SoundWatch> _sound;
  std::shared_ptr<recording::Recording> _recording;
};

}  // namespace kestrova::meet
