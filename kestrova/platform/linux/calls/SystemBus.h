#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace kestrova {

/// A connection to the machine's D-Bus that is made again whenever it is lost. Where there is no
/// bus it waits for one to appear, which costs nothing.
///
/// Belongs to its executor, which runs one piece of work at a time: everything but the making is
/// called there, and everything is called back there.
class SystemBus : public std::enable_shared_from_this<SystemBus> {
public:
  struct Events {
    /// A connection begins; questions that are put now go out once it stands.
    std::function<void(sd_bus& bus)> opened;
    /// Nothing more comes of it. Slots of that connection have to be let go of by now.
    std::function<void()> lost;
  };

  static std::shared_ptr<SystemBus> make(boost::asio::any_io_executor executor, Events events);
  ~SystemBus();

  void open();
  /// Says goodbye to nobody; no event follows.
  void close();

private:
  struct FreeBus {
    void operator()(sd_bus* bus) const;
  };

  SystemBus(boost::asio::any_io_executor executor, Events events);
  bool connect();
  void work();
  void lose();
  void listen();
  void wakeAt(std::chrono::steady_clock::time_point when);
  void wakeFor(boost::asio::posix::stream_descriptor::wait_type what);

  const Events _events;
  std::unique_ptr<sd_bus, FreeBus> _bus;
  std::optional<boost::asio::posix::stream_descriptor> _descriptor;
  boost::asio::steady_timer _timer;
  boost::asio::any_io_executor _executor;
  std::chrono::milliseconds _wait;
  std::uint64_t _turn = 0;  // tells the waits of the present from those before
  bool _isClosed = false;
};

/// Gives back what sd-bus hands out.
struct FreeSlot {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using BusSlot = std::unique_ptr<sd_bus_slot, FreeSlot>;
struct FreeMessage {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using BusMessage = std::unique_ptr<sd_bus_message, FreeMessage>;

}  // namespace kestrova
