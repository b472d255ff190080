#pragma once

#include <kestrova/realtime/PubSub.h>
#include <kestrova/session/Kestrova.h>

#include "Crowd.h"
#include "LocalService.h"
#include <memory>
#include <string>
#include <vector>

namespace kestrova::bench {

/// A participant who is in a meeting.
std::shared_ptr<Meeting> join(const test::LocalService& service, const std::string& meetingId,
                              const std::string& participantId);
void leave(const std::shared_ptr<Meeting>& meeting);

/// Everybody in a meeting of their own connection, as an application has it.
class LibraryCrowd final : public Crowd {
public:
  /// \param topicUrl where topic messages go instead of the service
  LibraryCrowd(const test::LocalService& service, const std::string& meetingId,
               const std::string& topicUrl = {});
  ~LibraryCrowd() override;
  void publish(std::uint32_t number) override;

private:
  Task<void> send(std::string text);

  std::vector<std::shared_ptr<Meeting>> _meetings;  // the first one publishes
  std::shared_ptr<PubSub> _publisher;
  std::shared_ptr<PubSubMessageListener> _listener[kListeners];
};

}  // namespace kestrova::bench
