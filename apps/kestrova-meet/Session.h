#pragma once

#include <kestrova/inspector/Inspector.h>
#include <kestrova/session/Meeting.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include "AudioWatch.h"
#include "Characters.h"
#include "Chat.h"
#include "Controls.h"
#include "ExitCode.h"
#include "Keyboard.h"
#include "MeetingWatcher.h"
#include "Options.h"
#include "Picture.h"
#include "RelayWatch.h"
#include "ServiceWatch.h"
#include <memory>
#include <string>

namespace kestrova::meet {

/// One run of the program: joins, stays as long as it should, leaves, and tells how it was.
///
/// Everything runs on one event loop, which is also the library's main queue.
class Session final : public MeetingCourse {
public:
  /// \param loop adopted by the main queue \param report must outlive the session
  Session(boost::asio::io_context& loop, const Options& options, Report& report);
  ~Session() override;
  /// Runs to the end of the meeting. \throws std::system_error when its page can't have its port
  Summary run();

  void joined() override;
  void stateChanged(MeetingState state) override;
  void failed(const KestrovaError& error) override;
  bool endsWith(const KestrovaError& error) const override;
  void connectionFailed(const std::string& message) override;
  void entryDenied() override;
  void over(LeaveReason reason) override;

private:
  void listen();
  void inspect();
  void awaitSignal();
  void takeInput();
  void bringWhatIsWished();
  void tick();
  Sample sample() const;
  /// The first reason counts. Leaves first where there is something to leave.
  void end(ExitCode code, std::string problem);
  void finish();
  Summary summarise();
  void summariseChat(Summary& summary) const;
  void writeSnapshots(Summary& summary);

  boost::asio::io_context& _loop;
  const Options& _options;
  Report& _report;
  boost::asio::signal_set _signals;
  boost::asio::steady_timer _ticker;
  boost::asio::steady_timer _deadline;  // of the join, the stay or the leaving, in this order
  std::shared_ptr<MeetingWatcher> _watcher;
  std::shared_ptr<Meeting> _meeting;
  std::shared_ptr<ServiceWatch> _services;
  std::shared_ptr<AudioWatch> _audio;
  std::shared_ptr<RelayWatch> _relays;
  std::shared_ptr<Characters> _characters;
  std::unique_ptr<Inspector> _inspector;
  std::unique_ptr<Picture> _picture;
  std::unique_ptr<Controls> _controls;
  std::unique_ptr<Keyboard> _keyboard;
  std::unique_ptr<Chat> _chat;
  int _ticks = 0;
  bool _joined = false;
  bool _over = false;
  bool _ending = false;
  ExitCode _code = exitGood;
  std::string _problem;
};

}  // namespace kestrova::meet
