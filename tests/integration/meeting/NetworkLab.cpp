#include "NetworkLab.h"

#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <random>
#include <stdexcept>
#include <vector>

namespace kestrova::test {
namespace {

bool run(const std::string& command) {
  return std::system(("PATH=$PATH:/usr/sbin:/sbin; " + command).c_str()) == 0;
}

void must(const std::string& command) {
  if (!run(command)) throw std::runtime_error("failed: " + command);
}

/// Root needs no user namespace, and others may be allowed one.
bool unshareNetwork() {
  if (::unshare(CLONE_NEWNET) == 0) return true;
  const auto user = std::to_string(::getuid());
  const auto group = std::to_string(::getgid());
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
  std::ofstream("/proc/self/setgroups") << "deny";
  std::ofstream("/proc/self/uid_map") << "0 " + user + " 1";
  std::ofstream("/proc/self/gid_map") << "0 " + group + " 1";
  return true;
}

}  // namespace

std::string NetworkLab::enter() {
  if (!unshareNetwork()) return std::string("no network namespace: ") + std::strerror(errno);
  if (!run("ip link set lo up")) return "no loopback in the network namespace";
  if (!run("nft add table inet lab && "
           "nft 'add chain inet lab in { type filter hook input priority 0; }'"))
    return "no packet filter in the network namespace";
  return "";
}

void NetworkLab::cut() {
  must("nft add rule inet lab in drop");
}

void NetworkLab::restore() {
  must("nft flush chain inet lab in");
}

Detour::Detour(std::chrono::milliseconds delay, int lossPercent)
    : _delay(delay), _lossPercent(lossPercent) {
  _tunnel = ::open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
  ifreq request{};
  std::strcpy(request.ifr_name, "detour");
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  if (_tunnel < 0 || ::ioctl(_tunnel, TUNSETIFF, &request) != 0)
    throw std::runtime_error(std::string("no tunnel: ") + std::strerror(errno));
  must(std::string("ip addr add ") + nearAddress + "/30 dev detour && ip link set detour up");
  _thread = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

Detour::~Detour() {
  _thread.request_stop();
  _thread.join();
  ::close(_tunnel);
}

void Detour::run(const std::stop_token& stop) {
  using Clock = std::chrono::steady_clock;
  using Packet = std::vector<char>;
  constexpr std::size_t longest = 2048;
  constexpr std::size_t source = 12;  // of the IPv4 header; the destination follows
  constexpr std::size_t addressSize = 4;
  std::minstd_rand random(1);
  std::uniform_int_distribution<int> percent(0, 99);
  constexpr auto longestQueue = std::chrono::seconds(1);
  std::deque<std::pair<Clock::time_point, Packet>> waiting;
  Clock::time_point free;  // when the road has carried all that waits
  while (!stop.stop_requested()) {
    auto wait = std::chrono::milliseconds(50);
    if (!waiting.empty())
      wait = std::clamp(
          std::chrono::ceil<std::chrono::milliseconds>(waiting.front().first - Clock::now()),
          std::chrono::milliseconds(0), wait);
    pollfd readable{_tunnel, POLLIN, 0};
    ::poll(&readable, 1, static_cast<int>(wait.count()));
    Packet packet(longest);
    for (ssize_t size; (size = ::read(_tunnel, packet.data(), longest)) > 0;) {
      const bool isIPv4 = size >= 20 && (packet[0] >> 4) == 4;
      if (!isIPv4) continue;
      // The road is as wide for both directions together.
      const auto now = Clock::now();
      const auto begins = std::max(now, free);
      if (percent(random) < _lossPercent || begins - now > longestQueue) {
        ++_lost;
        continue;
      }
      const std::chrono::duration<double, std::milli> takes(
          _kbps > 0 ? static_cast<double>(size) * 8 / _kbps : 0);
      free = begins + std::chrono::duration_cast<Clock::duration>(takes);
      // Both checksums are sums over the two addresses, in any order.
      std::swap_ranges(packet.begin() + source, packet.begin() + source + addressSize,
                       packet.begin() + source + addressSize);
      waiting.emplace_back(free + _delay, Packet(packet.begin(), packet.begin() + size));
    }
    for (; !waiting.empty() && waiting.front().first <= Clock::now(); waiting.pop_front()) {
      const auto& due = waiting.front().second;
      if (::write(_tunnel, due.data(), due.size()) > 0) ++_carried;
    }
  }
}

}  // namespace kestrova::test
