#pragma once

#include <kestrova/realtime/RealtimeStore.h>
#include <kestrova/session/Meeting.h>

#include "Characters.h"
#include "ChatTopic.h"
#include "MeetingWatcher.h"
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace kestrova::meet {

/// What a line that was typed means: a message, or a command after a slash. Main queue only.
class ChatCommands {
public:
  enum class Outcome {
    done,
    failed,  ///< the user was told
    later    ///< the connection was just lost, and nothing was sent: try again once it is back
  };

  /// \param meeting \param watcher \param characters \param topic must outlive the commands
  /// \param token with which files are stored \param keyFile with the key of the meeting, or empty
  ChatCommands(Meeting& meeting, MeetingWatcher& watcher, Characters& characters, ChatTopic& topic,
               std::string token, std::string keyFile)
      : _meeting(meeting),
        _watcher(watcher),
        _characters(characters),
        _topic(topic),
        _token(std::move(token)),
        _keyFile(std::move(keyFile)) {}

  Task<Outcome> run(std::string line);
  /// One line.
  static std::string help();

private:
  using Operation = Task<void> (ChatCommands::*)(std::string rest);
  Task<void> start(const std::string& line);
  Task<void> say(std::string message);
  Task<void> set(std::string rest);
  Task<void> get(std::string key);
  Task<void> watch(std::string key);
  Task<void> sendFile(std::string path);
  Task<void> sayToCharacter(std::string rest);
  Task<void> interrupt(std::string id);
  Task<void> rekey(std::string rest);
  Task<void> ratchet(std::string rest);
  Task<void> sayHelp(std::string rest);
  void tellValue(const char* event, Dictionary details, const std::string& key,
                 const std::optional<std::string>& value, const std::string& by) const;
  std::string nameOf(const std::string& participantId) const;
  Task<std::optional<std::string>> upload(std::string base64, std::string name);

  Meeting& _meeting;
  MeetingWatcher& _watcher;
  Characters& _characters;
  ChatTopic& _topic;
  const std::string _token;
  const std::string _keyFile;
  std::map<std::string, RealtimeStore::Listener> _watched;
};

}  // namespace kestrova::meet
