#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>

#include "Crowd.h"
#include <memory>
#include <thread>
#include <vector>

namespace kestrova::bench {

/// WebSockets with next to nothing above them, on one thread: what the same traffic costs at least.
class BareCrowd final : public Crowd {
public:
  /// \param port of the relay on this machine
  explicit BareCrowd(const std::string& port);
  ~BareCrowd() override;
  void publish(std::uint32_t number) override;

private:
  class Connection;
  void frameArrived(const char* bytes, std::size_t size);

  boost::asio::io_context _io{1};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> _work{
      _io.get_executor()};
  boost::asio::ssl::context _tls{boost::asio::ssl::context::tls_client};
  std::vector<std::shared_ptr<Connection>> _connections;  // the first one publishes
  std::thread _thread;
};

}  // namespace kestrova::bench
