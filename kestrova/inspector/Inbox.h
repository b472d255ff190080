#pragma once

#include <boost/asio/io_context.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace kestrova::inspector {

class MeetingRecord;

/// Brings what the library tells to the inspector's own thread. Any thread may put something in,
/// which takes no longer than that: it neither waits for a page nor for the record.
class Inbox : public std::enable_shared_from_this<Inbox> {
public:
  using Change = std::function<void(MeetingRecord&)>;
  /// Takes changes, in the order of their coming, and how many lines of the trace were left out.
  using Reader = std::function<void(std::vector<Change> changes, std::size_t leftOut)>;

  /// \param reader called on the loop
  Inbox(std::shared_ptr<boost::asio::io_context> loop, Reader reader);

  void put(Change change);
  /// For the trace, which may come faster than anybody can read: left out while too much waits.
  /// \param bytes that the line holds
  void putTrace(Change change, std::size_t bytes);

private:
  void deliver();

  const std::shared_ptr<boost::asio::io_context> _loop;
  const Reader _reader;
  std::mutex _lock;  // for all below
  std::vector<Change> _changes;
  std::size_t _traces = 0;
  std::size_t _traceBytes = 0;
  std::size_t _leftOut = 0;
};

}  // namespace kestrova::inspector
