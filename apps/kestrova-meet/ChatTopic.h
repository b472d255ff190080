#pragma once

#include <kestrova/platform/Queue.h>
#include <kestrova/realtime/PubSub.h>
#include <kestrova/session/Meeting.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "MeetingWatcher.h"
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kestrova::meet {

/// What is said in the topic "CHAT", history first, each message once. Main queue only.
class ChatTopic final : public PubSubMessageListener,
                        public std::enable_shared_from_this<ChatTopic> {
public:
  using Clock = std::chrono::steady_clock;
  static constexpr const char* topic = "CHAT";

  /// \param meeting \param watcher must outlive the topic
  ChatTopic(boost::asio::io_context& loop, Meeting& meeting, MeetingWatcher& watcher);

  /// After each join: subscribes, and asks for what was said before. Returns when that has been
  /// told, or when it didn't work, which is told, too, and tried again later.
  Task<void> listen();
  /// Says it to everybody. Returns when the service has it. \throws PubSubError, PlatformError
  Task<void> say(std::string message, Dictionary payload = {});
  /// How long this participant's own messages took to come back to it.
  const std::vector<std::chrono::duration<double, std::milli>>& roundTrips() const {
    return _roundTrips;
  }

  void onMessageReceived(const PubSubMessage& message) override;
  void onOldMessagesReceived(const std::vector<PubSubMessage>& messages,
                             const PubSubHistoryInfo& info) override;
  void onMessageDrop(const PubSubMessageDropInfo& info) override;
  /// Fetches what was missed.
  void onReconnected() override;

private:
  Task<std::string> subscribe();
  Task<void> untilHistoryIsTold(std::uint64_t listening);
  Task<void> listenLater(std::uint64_t listening);
  Task<void> listenAnew();
  void tellHistoryEnd();
  void clockIn(const PubSubMessage& message);
  bool isNew(const std::string& id);
  void tell(const char* event, const PubSubMessage& message);

  boost::asio::io_context& _loop;
  Meeting& _meeting;
  MeetingWatcher& _watcher;
  boost::asio::steady_timer _quiet;

  std::uint64_t _listening = 0;  ///< moves on with each `listen`: the one before is over
  bool _historyOver = false;
  bool _holding = false;
  std::deque<PubSubMessage> _held;  ///< new ones that came before the history was told
  std::uint64_t _old = 0;

  std::set<std::string> _known;  ///< ids of what has been told
  std::deque<std::string> _knownInOrder;

  std::int64_t _said = 0;
  std::map<std::int64_t, Clock::time_point> _onTheirWay;
  std::vector<std::chrono::duration<double, std::milli>> _roundTrips;
};

}  // namespace kestrova::meet
