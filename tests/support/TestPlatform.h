#pragma once

#include <kestrova/platform/Platform.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>

#include "Journal.h"
#include "ManualScheduler.h"
#include "ScriptedAudioSession.h"
#include "ScriptedCapture.h"
#include "ScriptedCryptors.h"
#include "ScriptedMediasoup.h"
#include "ScriptedScreen.h"
#include "ScriptedService.h"
#include "ScriptedSession.h"
#include "ScriptedSocket.h"
#include "ScriptedTopics.h"
#include "ScriptedTracks.h"
#include "TraceRecorder.h"
#include <chrono>
#include <exception>
#include <memory>
#include <optional>

namespace kestrova::test {

/// The process's platform while it lives: a clock that the test moves, and one event loop that is
/// the main queue and every background thread at once, and turns only inside `pump` and `advance`.
class TestPlatform {
  boost::asio::io_context _io;  // goes last: everything else may still post to it

public:
  TestPlatform();
  ~TestPlatform();
  TestPlatform(const TestPlatform&) = delete;
  TestPlatform& operator=(const TestPlatform&) = delete;

  /// Runs everything that is ready, and what comes of it.
  void pump();
  /// Moves the clock from one piece of timed work to the next, pumping in between.
  void advance(std::chrono::milliseconds time);
  /// Starts `task`, pumps, and gives its result; nothing while it still waits.
  /// \throws what the task threw
  template <class T>
  std::shared_ptr<std::optional<T>> start(Task<T> task);
  template <class T>
  T run(Task<T> task) {
    return start(std::move(task))->value();
  }
  void run(Task<void> task);

  boost::asio::io_context& io() { return _io; }

  Journal journal;
  Journal audioJournal;  ///< of the audio session and the telephone
  const std::shared_ptr<ManualScheduler> clock = std::make_shared<ManualScheduler>();
  const std::shared_ptr<ScriptedSession> session = std::make_shared<ScriptedSession>();
  const std::shared_ptr<ScriptedService> service = std::make_shared<ScriptedService>(clock);
  const std::shared_ptr<ScriptedTopics> topics = std::make_shared<ScriptedTopics>();
  const std::shared_ptr<MediaScript> media = std::make_shared<MediaScript>(journal);
  const std::shared_ptr<ScriptedFactory> factory = std::make_shared<ScriptedFactory>(journal);
  const std::shared_ptr<ScriptedCryptors> cryptors = std::make_shared<ScriptedCryptors>(journal);
  const std::shared_ptr<ScriptedCapture> capture;
  const std::shared_ptr<ScriptedScreen> screen = std::make_shared<ScriptedScreen>(journal);
  const std::shared_ptr<ScriptedAudioSession> audio =
      std::make_shared<ScriptedAudioSession>(audioJournal);
  const std::shared_ptr<ScriptedCallObserver> calls =
      std::make_shared<ScriptedCallObserver>(audioJournal);
  TraceRecorder& traces = TraceRecorder::shared();
};

template <class T>
std::shared_ptr<std::optional<T>> TestPlatform::start(Task<T> task) {
  auto result = std::make_shared<std::optional<T>>();
  auto failure = std::make_shared<std::exception_ptr>();
  boost::asio::co_spawn(_io, std::move(task), [result, failure](std::exception_ptr error, T value) {
    *failure = error;
    if (!error) *result = std::move(value);
  });
  pump();
  if (*failure) std::rethrow_exception(*failure);
  return result;
}

}  // namespace kestrova::test
