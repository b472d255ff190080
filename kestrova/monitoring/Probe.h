#pragma once

#include <kestrova/monitoring/Collector.h>
#include <kestrova/platform/Mediasoup.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Scheduler.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

namespace kestrova {

/// How a room client's transports are looked at.
struct KestrovaMetricsConfig {
  int refreshEvery = 2000;  ///< the period, in milliseconds
  // Kept for whoever reads the configuration: a probe begins one period after its start, and goes
  // on until it is stopped.
  int startAfter = 0;
  int stopAfter = -1;
  std::string peerId;
  std::string roomId;
  std::string name = "RoomMetrics";
};

/// What a probe looks at: exactly one of the two is set.
struct MonitoringObject {
  std::shared_ptr<SendTransport> sendTransport{};
  std::shared_ptr<ReceiveTransport> recieveTransport{};

  bool isSending() const { return sendTransport != nullptr; }
  /// The transport's statistics as the engine lists them; an empty list when the transport can't
  /// be used any more, and when the engine's text is no list.
  Task<List> getStats() const;
};

/// One look at a transport.
struct CollectedStats {
  std::string probeId;
  List raw;           ///< the engine's statistics
  Dictionary report;  ///< what `Collector` made of them; empty when there were none
};

/// Hears of a probe's looks, on the probe's queue.
class ProbeDelegate {
public:
  virtual ~ProbeDelegate() = default;
  virtual void onSendTransportStatsCollected(const CollectedStats& stats) = 0;
  virtual void onRecieveTransportStatsCollected(const CollectedStats& stats) = 0;
};

/// Looks at one transport again and again: asks the engine for its statistics, which holds up no
/// queue, and makes a report of them on a queue of its own. While the engine has not answered, no
/// other look begins. Thread-safe.
class Probe : public std::enable_shared_from_this<Probe> {
public:
  Probe(MonitoringObject monitoringObject, KestrovaMetricsConfig config);
  ~Probe();

  const std::string& id() const { return _id; }
  const MonitoringObject& monitoringObject() const { return _monitoringObject; }
  void setDelegate(std::weak_ptr<ProbeDelegate> delegate);
  /// The first look comes one period from now. Does nothing when it runs already.
  void start();
  /// No look begins any more. The delegate may still hear of one that is under way.
  void stop();

private:
  using Clock = Scheduler::Clock;
  void arm(Clock::time_point next);
  void tick();
  static Task<void> timerAction(std::weak_ptr<Probe> weak, MonitoringObject monitoringObject,
                                std::shared_ptr<void> look);
  void deliver(List raw);

  const std::string _id;
  const MonitoringObject _monitoringObject;
  const KestrovaMetricsConfig _config;
  const std::shared_ptr<Scheduler> _scheduler;
  const std::shared_ptr<SerialQueue> _timerQueue;
  Collector _collector;       // on _timerQueue
  std::weak_ptr<void> _look;  // on _timerQueue: the one under way

  std::mutex _timerLock;
  bool _running = false;  // under the lock, like the next three
  Clock::time_point _next;
  std::unique_ptr<Timer> _timer;
  std::weak_ptr<ProbeDelegate> _delegate;
};

}  // namespace kestrova
