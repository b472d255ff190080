#pragma once

#include <kestrova/inspector/Inbox.h>
#include <kestrova/inspector/MeetingRecord.h>
#include <kestrova/inspector/PageServer.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cstddef>
#include <string_view>
#include <vector>

namespace kestrova::inspector {

/// Keeps the record and tells the open pages of every change. Used on the thread of its loop, but
/// for the constructor.
class EventFeed final : public RecordReader {
public:
  /// \throws std::system_error when the port can't be had
  EventFeed(boost::asio::io_context& loop, PageServer::Options options, std::string_view page);

  PageServer& server() { return _server; }
  /// Takes all of them, and throws after that what the last one that failed has thrown.
  void take(std::vector<Inbox::Change> changes, std::size_t leftOut);

private:
  bool isReading() const override { return _server.hasPages(); }
  void changed(std::string_view event, const Dictionary& data) override;
  void tellSamplesSoon();

  MeetingRecord _record;
  PageServer _server;
  boost::asio::steady_timer _gathering;
  bool _isGathering = false;
};

}  // namespace kestrova::inspector
