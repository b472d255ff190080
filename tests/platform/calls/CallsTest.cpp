#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Runtime.h>
#include <kestrova/platform/linux/calls/ModemCallObserver.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PrivateBus.h"
#include <condition_variable>
#include <mutex>
#include <thread>

namespace kestrova {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using Lines = std::vector<std::string>;

enum State { dialing = 1, ringingOut, ringingIn, active, held, waiting, terminated };
constexpr std::int32_t incoming = 1, outgoing = 2;

/// Writes down what it is told of calls.
class Ear final : public CXCallObserverDelegate {
public:
  void callObserver(const CXCallObserver&, const CXCall& call) override {
    std::scoped_lock held(_lock);
    _lines.push_back(call.id.substr(call.id.rfind('/') + 1) + (call.isOutgoing ? " out" : " in") +
                     (call.hasConnected ? " connected" : "") + (call.hasEnded ? " ended" : ""));
    _changed.notify_all();
  }
  /// Waits for so many lines, which are forgotten.
  Lines take(std::size_t count) {
    std::unique_lock held(_lock);
    EXPECT_TRUE(_changed.wait_for(held, 40s, [&] { return _lines.size() >= count; }));
    return std::exchange(_lines, {});
  }

  bool hasHeard() {
    std::scoped_lock held(_lock);
    return !_lines.empty();
  }

private:
  std::mutex _lock;
  std::condition_variable _changed;
  Lines _lines;
};

class CallsTest : public testing::Test {
protected:
  CallsTest() {
    Platform::install({.background = Runtime::background(), .scheduler = Runtime::scheduler()});
  }
  static std::string path(const char* name) {
    return std::string("/org/freedesktop/ModemManager1/Call/") + name;
  }
  void listen() {
    observer = makeCallObserver(Runtime::network());
    observer->setDelegate(ear);
  }
  /// Returns once calls are heard of.
  void awaitHearing() {
    modemManager.makeCall(path("probe"), incoming, ringingIn);
    while (!ear->hasHeard() && !HasFailure())
      modemManager.changeState(path("probe"), ringingIn, ringingIn);
    modemManager.deleteCall(path("probe"));
    Lines heard;
    while (heard.size() < 2 && !HasFailure())
      for (auto& line : ear->take(1)) heard.push_back(std::move(line));
    EXPECT_THAT(heard, ElementsAre("probe in", "probe in ended"));
  }

  PrivateBus bus;
  MockModemManager modemManager{bus};
  const std::shared_ptr<Ear> ear = std::make_shared<Ear>();
  std::shared_ptr<CXCallObserver> observer;
};

TEST_F(CallsTest, TellsOfCallsFromTheirFirstRingToTheirEnd) {
  bus.start();
  modemManager.start();
  listen();
  awaitHearing();
  modemManager.addCall(path("a"), incoming, ringingIn);
  EXPECT_THAT(ear->take(1), ElementsAre("a in"));
  modemManager.changeState(path("a"), ringingIn, active);
  EXPECT_THAT(ear->take(1), ElementsAre("a in connected"));
  // A second one knocks, while the first is held and taken up again.
  modemManager.addCall(path("b"), incoming, waiting);
  modemManager.changeState(path("a"), active, held);
  modemManager.changeState(path("a"), held, active);
  modemManager.changeState(path("b"), waiting, terminated);
  EXPECT_THAT(ear->take(2), ElementsAre("b in", "b in ended"));
  modemManager.changeState(path("a"), active, terminated);
  modemManager.deleteCall(path("a"));
  EXPECT_THAT(ear->take(1), ElementsAre("a in connected ended"));
  modemManager.addCall(path("c"), outgoing, dialing);
  modemManager.changeState(path("c"), dialing, ringingOut);
  modemManager.changeState(path("c"), ringingOut, active);
  modemManager.deleteCall(path("c"));
  EXPECT_THAT(ear->take(3), ElementsAre("c out", "c out connected", "c out connected ended"));
  // One that went on before anybody looked.
  modemManager.makeCall(path("d"), outgoing, terminated);
  modemManager.changeState(path("d"), active, terminated);
  EXPECT_THAT(ear->take(1), ElementsAre("d out connected ended"));
}

TEST_F(CallsTest, EndsWhatGoesOnWhenModemManagerGoesAndHearsTheNextOne) {
  bus.start();
  listen();
  for (int life = 0; life < 2; ++life) {
    modemManager.start();
    awaitHearing();
    modemManager.addCall(path("a"), incoming, ringingIn);
    modemManager.addCall(path("b"), outgoing, active);
    EXPECT_THAT(ear->take(2), ElementsAre("a in", "b out connected"));
    modemManager.kill();
    EXPECT_THAT(ear->take(2), ElementsAre("a in ended", "b out connected ended"));
  }
}

TEST_F(CallsTest, OutlastsTheBusAndWaitsForOne) {
  listen();  // there is none yet
  for (int life = 0; life < 2; ++life) {
    bus.start();
    modemManager.start();
    awaitHearing();
    modemManager.addCall(path("a"), incoming, active);
    EXPECT_THAT(ear->take(1), ElementsAre("a in connected"));
    bus.kill();
    EXPECT_THAT(ear->take(1), ElementsAre("a in connected ended"));
  }
}

TEST_F(CallsTest, TakesNothingAtItsWord) {
  bus.start();
  modemManager.start();
  listen();
  awaitHearing();
  modemManager.makeStrangeCall(path("strange"));
  for (const std::int32_t state : {0, 8, -1, 0x7FFFFFFF})
    modemManager.changeState(path("strange"), ringingIn, state);
  modemManager.emitText(path("strange"), MockModemManager::call, "StateChanged", "active");
  modemManager.emitText(path("strange"), MockModemManager::voice, "CallAdded", "not a path");
  modemManager.emitText(path("strange"), MockModemManager::voice, "CallDeleted", path("x").c_str());
  modemManager.deleteCall(path("neverHeardOf"));
  modemManager.changeState(path("strange"), ringingIn, active);
  EXPECT_THAT(ear->take(1), ElementsAre("strange in connected"));
  // A call that is gone before it could be asked after.
  modemManager.announce("CallAdded", path("gone"));
  modemManager.announce("CallDeleted", path("gone"));
  // Somebody else, who knows the observer's address.
  for (const auto& peer : bus.peers()) {
    sd_bus_message* signal = nullptr;
    ASSERT_GE(sd_bus_message_new_signal(bus.connection(), &signal, path("false").c_str(),
                                        MockModemManager::call, "StateChanged"),
              0);
    sd_bus_message_append(signal, "iiu", ringingIn, ringingIn, 0u);
    sd_bus_message_set_destination(signal, peer.c_str());
    sd_bus_send(bus.connection(), signal, nullptr);
    sd_bus_message_unref(signal);
  }
  EXPECT_FALSE(bus.hasOwner("nobody.here"));  // all that is with the bus by now
  modemManager.addCall(path("true"), incoming, ringingIn);
  EXPECT_THAT(ear->take(1), ElementsAre("true in"));
  // More calls than any machine has.
  for (int i = 0; i < 200; ++i)
    modemManager.announce("CallAdded", path(("many" + std::to_string(i)).c_str()));
  modemManager.changeState(path("true"), ringingIn, terminated);
  EXPECT_THAT(ear->take(1), ElementsAre("true in ended"));
}

TEST_F(CallsTest, TellsNobodyAfterwards) {
  bus.start();
  modemManager.start();
  listen();
  awaitHearing();
  const auto later = std::make_shared<Ear>();
  const auto others = SerialQueue::make("elsewhere");
  observer->setDelegate(later, others);
  modemManager.addCall(path("a"), incoming, ringingIn);
  EXPECT_THAT(later->take(1), ElementsAre("a in"));
  const auto peers = bus.peers().size();
  observer->setDelegate({});
  observer->setDelegate(ear);
  observer->setDelegate({});
  observer.reset();
  while (bus.peers().size() >= peers && !HasFailure()) std::this_thread::yield();
  EXPECT_FALSE(ear->hasHeard());
  EXPECT_FALSE(later->hasHeard());
}

}  // namespace
}  // namespace kestrova
