#include <kestrova/platform/linux/screen/BroadcastProcess.h>
#include <kestrova/platform/linux/screen/LinuxNotifications.h>
#include <kestrova/platform/linux/screen/LinuxRenderer.h>
#include <kestrova/platform/linux/screen/LinuxScreenSharing.h>
#include <kestrova/platform/linux/screen/LinuxUnixSockets.h>
#include <kestrova/platform/linux/screen/PrivateFolder.h>

#include <unistd.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace kestrova {
namespace {

class LinuxScreenSharing final : public ScreenSharing {
public:
  explicit LinuxScreenSharing(boost::asio::any_io_executor network)
      : _network(network), _notifications(makeNotifications(std::move(network))) {}

  void configure(const ScreenShareConfig& config) override {
    const auto& group = config.appGroupIdentifier;
    if (!group.empty() && (!isGroupName(group) || group.size() > longestDeclaredGroup))
      throw std::invalid_argument("appGroupIdentifier takes up to " +
                                  std::to_string(longestDeclaredGroup) +
                                  " letters, digits, '.', '_' and '-', and no dot first");
    auto copy = config;
    std::scoped_lock held(_lock);
    std::swap(_config, copy);
  }

  std::optional<std::string> infoValue(std::string_view key) override {
    std::string value;
    {
      std::scoped_lock held(_lock);
      if (key == appGroupIdentifierKey) value = _config.appGroupIdentifier;
      if (key == screenSharingExtensionKey) value = _config.screenSharingExtension;
    }
    return value.empty() ? std::nullopt : std::optional(std::move(value));
  }

  std::optional<std::string> container(const std::string& groupIdentifier) override {
    return groupFolder(groupIdentifier);
  }

  std::string ownGroup(const std::string& groupIdentifier) override {
    static std::atomic<unsigned> count{0};
    return groupIdentifier + "." + std::to_string(::getpid()) + "-" + std::to_string(++count);
  }

  void removeContainer(const std::string& groupIdentifier) override {
    const auto folder = groupFolder(groupIdentifier);
    if (folder) ::rmdir(folder->c_str());  // stays while something is in it
  }

  std::shared_ptr<UnixSockets> sockets() override { return _sockets; }
  std::unique_ptr<PictureRenderer> makeRenderer() override { return makePictureRenderer(); }
  std::shared_ptr<CrossProcessNotifications> notifications() override { return _notifications; }

  std::unique_ptr<BroadcastProgram> showBroadcastPicker(
      const std::string& preferredExtension, const std::string& groupIdentifier,
      std::function<void(const BroadcastEnd& end)> ended) override {
    const auto program = findProgram(preferredExtension);
    if (!program) return nullptr;
    std::vector<std::string> arguments{"--group", groupIdentifier, "--lifeline"};
    {
      std::scoped_lock held(_lock);
      arguments.insert(arguments.end(), _config.arguments.begin(), _config.arguments.end());
    }
    return startBroadcast(*program, arguments, _network, std::move(ended));
  }

private:
  const boost::asio::any_io_executor _network;
  const std::shared_ptr<CrossProcessNotifications> _notifications;
  const std::shared_ptr<UnixSockets> _sockets = makeUnixSockets();
  std::mutex _lock;
  ScreenShareConfig _config;  // under _lock
};

}  // namespace

std::shared_ptr<ScreenSharing> makeScreenSharing(boost::asio::any_io_executor network) {
  return std::make_shared<LinuxScreenSharing>(std::move(network));
}

}  // namespace kestrova
