#include <gtest/gtest.h>

#include "Endpoint.h"
#include <cmath>
#include <filesystem>
#include <map>

namespace kestrova::test {
namespace {

using std::chrono::steady_clock;

struct Case {
  const char* name;
  const char* codec;  // MIME type; empty for the server's first
  bool simulcast;
  bool tcp;
  int fullWidth;
};

void PrintTo(const Case& tested, std::ostream* out) {
  *out << tested.name;
}

class EveryCodec : public testing::TestWithParam<Case> {};

TEST_P(EveryCodec, ComesBackFromTheServer) {
  const auto& given = GetParam();
  Sfu sfu;
  auto endpoint = Endpoint::make(sfu, given.tcp);
  ProducerOptions options;
  options.track = endpoint->cameraTrack();
  if (given.simulcast) options.encodings = threeLayers();
  if (*given.codec) options.codec = endpoint->codec(given.codec);
  options.codecOptions = R"({"videoGoogleStartBitrate":1000})";
  auto camera = endpoint->produce(std::move(options));

  ProducerOptions microphone;
  microphone.track = endpoint->toneTrack(440);
  microphone.encodings = {{.networkPriority = RTCRtpEncodingParameters::Priority::high}};
  microphone.codecOptions =
      R"({"opusStereo":false,"opusFec":true,"opusDtx":true,"opusMaxPlaybackRate":0,"opusPtime":0})";
  auto voice = endpoint->produce(std::move(microphone));

  auto picture = endpoint->watch(endpoint->consume(camera->id()));
  auto sound = endpoint->listen(endpoint->consume(voice->id()));
  ASSERT_TRUE(picture->waitForReadings(20));
  ASSERT_TRUE(picture->waitForWidth(given.fullWidth));
  ASSERT_TRUE(picture->waitForReadings(30));
  const auto seen = picture->seen();
  EXPECT_EQ(seen.backwards, 0);
  EXPECT_GE(seen.latencyMs, 0);
  EXPECT_LT(seen.latencyMs, 2000);
  EXPECT_GE(seen.readings * 10, seen.pictures * 9) << "pictures with an unreadable clock";
  const auto purity = sound->purity(440);
  ASSERT_TRUE(purity);
  EXPECT_GT(*purity, 0.9);
  EXPECT_LT(sound->purity(600).value_or(0), 0.05);
  EXPECT_EQ(endpoint->connects, 2);

  const auto stats = parseJson(await(camera->stats()));
  ASSERT_TRUE(stats && stats->is_array());
  std::string sender;
  for (const auto& entry : stats->get_array())
    if (text(asDictionary(entry), "type", "") == "outbound-rtp")
      sender = text(asDictionary(entry), "id", "");
  EXPECT_FALSE(sender.empty());
}

INSTANTIATE_TEST_SUITE_P(Sfu, EveryCodec,
                         testing::Values(Case{"Vp8Simulcast", "", true, false, 1280},
                                         Case{"Vp8SimulcastTcp", "video/VP8", true, true, 640},
                                         Case{"H264", "video/H264", false, false, 1280},
                                         Case{"Vp9", "video/VP9", false, false, 1280}),
                         [](const auto& tested) { return std::string(tested.param.name); });

/// Those of the entries that stay as they are while media flows, without their time stamps.
std::map<std::string, Dictionary> lastingEntries(const List& statistics) {
  std::map<std::string, Dictionary> lasting;
  for (const auto& value : statistics) {
    auto entry = asDictionary(value);
    const auto type = text(entry, "type", "");
    if (type != "codec" && type != "local-candidate" && type != "certificate") continue;
    entry.erase("timestamp");
    lasting[text(entry, "id", "")] = std::move(entry);
  }
  return lasting;
}

TEST(Transports, TheirStatisticsAreTheSameReadAndAsText) {
  Sfu sfu;
  auto endpoint = Endpoint::make(sfu);
  ProducerOptions options;
  options.track = endpoint->cameraTrack(320, 180);
  const auto camera = endpoint->produce(std::move(options));
  auto picture = endpoint->watch(endpoint->consume(camera->id()));
  ASSERT_TRUE(picture->waitForReadings(5));

  const auto written = parseJson(await(endpoint->sending->stats()));
  const auto read = await(endpoint->sending->statsList());
  ASSERT_TRUE(written && written->is_array());
  EXPECT_GE(lastingEntries(read).size(), 3u);
  EXPECT_EQ(lastingEntries(read), lastingEntries(written->get_array()));
  for (const auto& value : read)
    for (const auto& member : asDictionary(value)) {
      const auto* number = member.key() == "timestamp" ? nullptr : member.value().if_double();
      EXPECT_FALSE(number && *number == std::trunc(*number))
          << member.key() << " would be written otherwise";
    }

  endpoint->sending->close();
  EXPECT_TRUE(await(endpoint->sending->statsList()).empty());
}

TEST(Transports, ConsumersComeAndGoWhileOthersRun) {
  Sfu sfu;
  auto endpoint = Endpoint::make(sfu);
  ProducerOptions first, second, tone;
  first.track = endpoint->cameraTrack(320, 180);
  second.track = endpoint->cameraTrack(320, 180);
  tone.track = endpoint->toneTrack(1000);
  auto a = endpoint->produce(std::move(first));
  auto b = endpoint->produce(std::move(second));
  auto voice = endpoint->produce(std::move(tone));

  auto consumerA = endpoint->consume(a->id());
  auto consumerB = endpoint->consume(b->id());
  auto consumerVoice = endpoint->consume(voice->id());
  auto watchA = endpoint->watch(consumerA);
  auto watchB = endpoint->watch(consumerB);
  auto heard = endpoint->listen(consumerVoice);
  ASSERT_TRUE(watchA->waitForReadings(3));
  ASSERT_TRUE(watchB->waitForReadings(3));

  const auto end = [&](const std::shared_ptr<Consumer>& consumer) {
    sfu.call("closeConsumer", {{"consumerId", consumer->id()}});
    consumer->close();
    consumer->close();
    EXPECT_TRUE(consumer->closed());
  };
  end(consumerA);  // its section carries the bundle
  EXPECT_TRUE(watchB->waitForReadings(5)) << "after the first section fell silent";
  end(consumerB);  // its place becomes free
  EXPECT_GT(heard->purity(1000).value_or(0), 0.9);
  for (int round = 0; round < 3; ++round) {
    auto again = endpoint->consume(round % 2 ? a->id() : b->id());
    auto watch = endpoint->watch(again);
    EXPECT_TRUE(watch->waitForReadings(3)) << "in a recycled section, round " << round;
    again->pause();
    EXPECT_TRUE(again->paused());
    EXPECT_FALSE(again->track()->isEnabled());
    end(again);
  }
  EXPECT_GT(heard->purity(1000).value_or(0), 0.9);

  // The same on the sending side: sections of closed producers are used again.
  for (int round = 0; round < 2; ++round) {
    a->close();
    b->close();
    ProducerOptions options;
    options.track = endpoint->cameraTrack(320, 180);
    b = endpoint->produce(options);
    options.encodings = threeLayers();
    a = endpoint->produce(options);
    auto watch = endpoint->watch(endpoint->consume(b->id()));
    EXPECT_TRUE(watch->waitForReadings(3)) << "from a recycled sender, round " << round;
  }
  EXPECT_GT(heard->purity(1000).value_or(0), 0.9);
}

TEST(Transports, IceRestartsOnBothSides) {
  Sfu sfu;
  auto endpoint = Endpoint::make(sfu);
  // With nothing negotiated there is nothing to restart: the new parameters are simply used later.
  for (const auto& transport : {std::shared_ptr<Transport>(endpoint->sending),
                                std::shared_ptr<Transport>(endpoint->receiving)})
    transport->restartICE(
        boost::json::serialize(sfu.call("restartIce", {{"transportId", transport->id()}})));
  ProducerOptions options;
  options.track = endpoint->cameraTrack(640, 360);
  auto camera = endpoint->produce(std::move(options));
  auto watch = endpoint->watch(endpoint->consume(camera->id()));
  ASSERT_TRUE(watch->waitForReadings(5));

  const auto localFragment = [](const std::string& stats) {
    const auto report = parseJson(stats).value_or(List());
    for (const auto& entry : report.get_array())
      if (text(asDictionary(entry), "type", "") == "transport")
        return text(asDictionary(entry), "iceLocalUsernameFragment", "");
    return std::string();
  };
  for (const auto& transport : {std::shared_ptr<Transport>(endpoint->sending),
                                std::shared_ptr<Transport>(endpoint->receiving)}) {
    const auto before = localFragment(await(transport->stats()));
    transport->restartICE(
        boost::json::serialize(sfu.call("restartIce", {{"transportId", transport->id()}})));
    EXPECT_TRUE(watch->waitForReadings(30));
    EXPECT_NE(localFragment(await(transport->stats())), before);
    const auto state = transport->connectionState();
    EXPECT_TRUE(state == TransportConnectionState::connected ||
                state == TransportConnectionState::completed)
        << static_cast<int>(state);
  }
}

TEST(Transports, ARefusedProducerLeavesNoTrace) {
  Sfu sfu;
  auto endpoint = Endpoint::make(sfu);
  ProducerOptions options;
  options.track = endpoint->cameraTrack(320, 180);
  struct Refusal {
    const char* how;
    std::function<void(SendTransportDelegate::ProduceCallback)> answer;
  };
  const Refusal refusals[] = {
      {"nothing", [](auto callback) { callback(std::nullopt); }},
      {"an empty id", [](auto callback) { callback(""); }},
      {"dropped", [](auto) {}},
      {"twice", [](auto callback) { callback(std::nullopt), callback("late"); }},
  };
  for (const auto& refusal : refusals) {
    endpoint->produceAnswer = refusal.answer;
    EXPECT_THROW(endpoint->produce(options), MediasoupError) << refusal.how;
  }
  endpoint->produceAnswer = nullptr;
  EXPECT_THROW(
      {
        auto tooMany = options;
        tooMany.encodings.resize(4);
        endpoint->produce(tooMany);
      },
      MediasoupError);
  auto producer = endpoint->produce(options);
  auto watch = endpoint->watch(endpoint->consume(producer->id()));
  EXPECT_TRUE(watch->waitForReadings(3));
}

struct CloseCounter : ProducerDelegate, ConsumerDelegate {
  void onTransportClose(const std::shared_ptr<Producer>&) override { producers.set_value(); }
  void onTransportClose(const std::shared_ptr<Consumer>&) override { consumers.set_value(); }
  std::promise<void> producers, consumers;
};

TEST(Transports, MayBeClosedFromAnywhere) {
  Sfu sfu;
  auto endpoint = Endpoint::make(sfu);
  ProducerOptions options;
  options.track = endpoint->cameraTrack(320, 180);
  auto camera = endpoint->produce(options);
  auto consumer = endpoint->consume(camera->id());
  auto told = std::make_shared<CloseCounter>();
  camera->setDelegate(told);
  consumer->setDelegate(told);

  // From the middle of a picture, and everything let go of there.
  auto watch = std::make_shared<ClockWatch>();
  std::promise<void> closed;
  std::once_flag once;
  watch->onPicture = [&] {
    std::call_once(once, [&] {
      EXPECT_THROW(endpoint->receiving->consume("x", "y", MediaKind::audio, "{}", "{}"),
                   MediasoupError);
      endpoint->receiving->close();
      closed.set_value();
    });
  };
  std::dynamic_pointer_cast<RTCVideoTrack>(consumer->track())->addSink(watch);
  ASSERT_EQ(closed.get_future().wait_for(kPatience), std::future_status::ready);
  ASSERT_EQ(told->consumers.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(consumer->closed());
  EXPECT_EQ(await(consumer->stats()), "[]");
  EXPECT_THROW(endpoint->consume(camera->id()), MediasoupError);

  // While the server still thinks about another producer, and a third one waits behind it.
  std::promise<SendTransportDelegate::ProduceCallback> asked;
  endpoint->produceAnswer = [&](auto callback) { asked.set_value(callback); };
  const auto begin = [&] {
    auto task = endpoint->sending->createProducer(options);
    return boost::asio::co_spawn(Runtime::background(), std::move(task), boost::asio::use_future);
  };
  auto pending = begin();
  auto waiting = begin();
  auto answer = asked.get_future().get();
  endpoint->sending->close();
  EXPECT_THROW(pending.get(), MediasoupError);
  EXPECT_THROW(waiting.get(), MediasoupError);
  answer("too-late");
  ASSERT_EQ(told->producers.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(camera->closed());
  EXPECT_EQ(endpoint->sending->connectionState(), TransportConnectionState::closed);
  camera->close();
  camera->pause();
  EXPECT_THROW(endpoint->sending->restartICE("{}"), MediasoupError);
}

// A sink that does not return holds up the engine's own thread as soon as it is taken off its
// track: whatever waited for the engine would now wait for ever.
TEST(Transports, ClosingWaitsForNothing) {
  Sfu sfu;
  auto endpoint = Endpoint::make(sfu);
  ProducerOptions options;
  options.track = endpoint->cameraTrack(320, 180);
  auto camera = endpoint->produce(options);
  auto consumer = endpoint->consume(camera->id());
  auto other = endpoint->consume(camera->id());
  auto track = std::dynamic_pointer_cast<RTCVideoTrack>(consumer->track());
  auto slow = std::make_shared<ClockWatch>();
  std::promise<void> inside, goOn;
  std::once_flag once;
  slow->onPicture = [&] {
    std::call_once(once, [&] {
      inside.set_value();
      goOn.get_future().wait();
    });
  };
  track->addSink(slow);
  ASSERT_EQ(inside.get_future().wait_for(kPatience), std::future_status::ready);
  track->removeSink(slow);

  auto task = endpoint->sending->createProducer({.track = endpoint->toneTrack(440)});
  auto pending =
      boost::asio::co_spawn(Runtime::background(), std::move(task), boost::asio::use_future);
  consumer->close();
  EXPECT_FALSE(consumer->track()->isEnabled());
  camera->close();
  EXPECT_TRUE(camera->track()->isEnabled()) << "it is the application's";
  endpoint->sending->close();
  EXPECT_THROW(pending.get(), MediasoupError);
  endpoint->receiving->close();
  EXPECT_TRUE(other->closed());
  EXPECT_FALSE(other->track()->isEnabled());
  EXPECT_EQ(await(other->stats()), "[]");
  goOn.set_value();
}

// The engine ends a connection and makes its statistics on the same thread.
TEST(Transports, ClosingAmongStatisticsEnds) {
  Sfu sfu;
  auto staying = Endpoint::make(sfu);
  for (int round = 0; round < 40; ++round) {
    auto leaving = Endpoint::make(sfu);
    std::vector<std::future<std::string>> answers;
    for (int i = 0; i < 50; ++i) {
      if (i == 10 + round) leaving->sending->close();
      answers.push_back(boost::asio::co_spawn(Runtime::background(), leaving->sending->stats(),
                                              boost::asio::use_future));
    }
    for (auto& answer : answers) {
      ASSERT_EQ(answer.wait_for(kPatience), std::future_status::ready) << round;
      EXPECT_TRUE(parseJson(answer.get()));
    }
  }
  EXPECT_NE(await(staying->sending->stats()), "[]");
}

int threadsOfThisProcess() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
    ++count;
  return count;
}

TEST(Engine, GoesWithTheLastThatRefersToIt) {
  installPlatform();
  await([]() -> Task<int> { co_return 1; }());  // the executors' own threads are there
  const int before = threadsOfThisProcess();
  {
    auto device = loadedDevice();
    auto transport = device->createSendTransport(deadTransport());
    EXPECT_GT(threadsOfThisProcess(), before);
    device.reset();
    EXPECT_EQ(transport->connectionState(), TransportConnectionState::new_);
  }
  // The last callbacks may hold on for a moment.
  const auto deadline = steady_clock::now() + kPatience;
  while (threadsOfThisProcess() > before && steady_clock::now() < deadline)
    std::this_thread::yield();
  EXPECT_EQ(threadsOfThisProcess(), before);
  EXPECT_TRUE(loadedDevice()->isLoaded()) << "and is made anew";
}

}  // namespace
}  // namespace kestrova::test
