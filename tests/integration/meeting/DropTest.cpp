#include "MeetingFixture.h"

namespace kestrova::test {
namespace {

constexpr double tone = 660;
constexpr auto longestWait = std::chrono::seconds(25);
/// By now whoever waits for the lost answer has given up, and may not disturb what has come since.
constexpr auto answersAreGivenUp = std::chrono::seconds(22);

enum class Off { nothing, byAda, byWitness };

/// The request whose answer is lost, and how often Ada hears that she has joined.
struct Drop {
  const char* method;
  const char* direction;
  int joins;
  Off off = Off::nothing;
};

/// Ada, whose connection drops, and somebody with a microphone who watches her.
class Place {
public:
  Place(const Drop& drop, int number, const LocalService& service)
      : _drop(drop), _room("room-" + std::to_string(number)), _service(service) {}

  void open(const std::string& token, InitMeetingOptions forWitness) {
    forWitness.meetingId = _room;
    witness = Attendee::join(token, std::move(forWitness));
  }
  void enter(const std::string& token, InitMeetingOptions forAda) {
    forAda.meetingId = _room;
    if (_drop.off == Off::nothing) lose();
    ada = Attendee::join(token, std::move(forAda));
  }
  void switchOff() {
    if (_drop.off == Off::nothing) return;
    ASSERT_TRUE(witness->sees("gets video") && witness->sees("gets audio")) << story();
    if (_drop.off == Off::byAda) {
      lose();
      ada->meeting->muteMic();
      ada->meeting->disableWebcam();
      return;
    }
    // One after the other: an order that falls into the drop is lost itself.
    witness->other("ada")->disableWebcam();
    ASSERT_TRUE(witness->sees("loses video")) << story();
    lose();
    witness->other("ada")->disableMic();
  }

  bool isGood() const {
    const auto& meeting = *ada->meeting;
    const auto seen = witness->other("ada");
    return seen && meeting.meetingState() == MeetingState::CONNECTED &&
           ada->count("joined") == _drop.joins &&
           ada->count("left") + ada->count("state FAILED") == 0 &&
           meeting.participants().size() == 1 && isPublished(*meeting.localParticipant()) &&
           isPublished(*seen);
  }
  /// Sound and pictures of Ada, unless they are off, and the witness's sound to her.
  bool flows(std::chrono::seconds limit) const {
    const int hers = witness->sound->loudBlocks;
    const int pictures = witness->picture->clocksRead;
    const int heard = ada->sound->loudBlocks;
    const int wanted = _drop.off == Off::nothing ? 10 : 0;
    return ada->waitUntil(
        [&] {
          return witness->sound->loudBlocks >= hers + wanted &&
                 witness->picture->clocksRead >= pictures + wanted &&
                 ada->sound->loudBlocks >= heard + 10;
        },
        limit);
  }
  std::string story() const {
    return std::string(_drop.method) + (_drop.direction ? _drop.direction : "") +
           "\nada: " + (ada ? ada->story() : "") + "\nwitness: " + witness->story();
  }

  std::shared_ptr<Attendee> ada;
  std::shared_ptr<Attendee> witness;

private:
  bool isPublished(const Participant& participant) const {
    std::multiset<MediaType> kinds;
    for (const auto& [id, stream] : participant.streams()) kinds.insert(stream->kind());
    return kinds == (_drop.off == Off::nothing ? std::multiset{MediaType::audio, MediaType::video}
                                               : std::multiset<MediaType>{});
  }
  void lose() const {
    Dictionary fault{{"roomId", _room}, {"peerId", "ada"}, {"method", _drop.method}};
    if (_drop.direction) fault["direction"] = _drop.direction;
    fault["downMs"] = 1000;
    EXPECT_TRUE(boolean(_service.control("loseAnswer", fault), "ok", false));
  }

  const Drop _drop;
  const std::string _room;
  const LocalService& _service;
};

class DropTest : public MeetingFixture {};

TEST_F(DropTest, AnAnswerLostInADropChangesNothingThatWasWished) {
  const Drop drops[] = {{"requestEntry", nullptr, 1},
                        {"getRouterRtpCapabilities", nullptr, 1},
                        {"createWebRtcTransport", "send", 1},
                        {"createWebRtcTransport", "receive", 1},
                        {"join", nullptr, 1},
                        {"connectWebRtcTransport", "send", 2},
                        {"connectWebRtcTransport", "receive", 2},
                        {"produce", nullptr, 2},
                        {"closeProducer", nullptr, 2, Off::byAda},
                        {"closeProducer", nullptr, 2, Off::byWitness}};
  const auto token = service.token();
  useTone(tone);
  auto listening = person("witness");
  listening.webcamEnabled = false;
  std::vector<Place> places;
  for (const auto& drop : drops)
    places.emplace_back(drop, static_cast<int>(places.size()), service).open(token, listening);
  for (auto& place : places) ASSERT_TRUE(place.witness->sees("own audio")) << place.story();
  for (auto& place : places) place.enter(token, small(person("ada"), tone));
  for (auto& place : places) place.switchOff();

  const auto begin = std::chrono::steady_clock::now();
  const auto left = [&](std::chrono::seconds from) {
    const auto passed = std::chrono::steady_clock::now() - begin;
    return std::max(std::chrono::seconds(1),
                    std::chrono::ceil<std::chrono::seconds>(from - passed));
  };
  std::vector<const Place*> good;
  for (const auto& place : places) {
    const bool isBack = place.ada->waitUntil([&] { return place.isGood(); }, left(longestWait));
    EXPECT_TRUE(isBack) << place.story();
    if (isBack) good.push_back(&place);
  }
  // Nothing that belongs to the lost connection comes up again, and media flows to the end.
  for (const auto* place : good) {
    const bool isDisturbed =
        place->ada->waitUntil([&] { return !place->isGood(); }, left(answersAreGivenUp));
    ASSERT_FALSE(isDisturbed) << place->story();
  }
  for (const auto* place : good) {
    const int heard = place->witness->sound->loudBlocks;
    EXPECT_TRUE(place->flows(Attendee::patience)) << place->story();
    if (place->witness->other("ada")->streams().empty()) {
      EXPECT_EQ(place->witness->sound->loudBlocks, heard) << place->story();
    }
  }
}

TEST_F(DropTest, OddTextCostsNobodyTheConnection) {
  const auto ada = Attendee::join(service.token(), person("ada", false));
  ASSERT_TRUE(ada->sees("joined")) << ada->story();
  const auto notification = [](const std::string& data) {
    return R"(2["notification",{"method":"activeSpeaker","data":)" + data + "}]";
  };
  int pins = 0;
  for (const auto& raw : {notification(R"({"peerId":"\ud83d"})"),
                          notification(std::string(60, '[') + std::string(60, ']')),
                          std::string(R"(2[7,{"a":1}])")}) {
    SCOPED_TRACE(raw);
    const Dictionary to{{"roomId", "integration"}, {"peerId", "ada"}, {"raw", raw}};
    EXPECT_TRUE(boolean(service.control("emit", to), "ok", false));
    // What comes behind it on the same connection is served.
    ada->meeting->localParticipant()->pin(PinType::CAM);
    ASSERT_TRUE(ada->seesTimes("pinned ada", ++pins)) << ada->story();
    ada->meeting->localParticipant()->unpin(PinType::CAM);
    ASSERT_TRUE(ada->seesTimes("unpinned ada", pins)) << ada->story();
  }
  EXPECT_EQ(ada->count("state RECONNECTING"), 0) << ada->story();
}

}  // namespace
}  // namespace kestrova::test
