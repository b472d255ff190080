#include "ChatCommands.h"

#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Values.h>
#include <kestrova/realtime/Base64.h>

#include <boost/asio/async_result.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "Encryption.h"
#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

namespace kestrova::meet {
namespace {

// What the local service takes; the whole file lies in memory, more than once.
constexpr std::uintmax_t mostFileBytes = 16 * 1024 * 1024;

struct ChatFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The first word, and what follows the blanks behind it.
std::pair<std::string, std::string> firstWord(const std::string& text) {
  const auto blank = std::min(text.find(' '), text.size());
  const auto rest = std::min(text.find_first_not_of(' ', blank), text.size());
  return {text.substr(0, blank), text.substr(rest)};
}

/// \throws ChatFailure when it can't be read, or makes no sense to send
std::string contentOf(const std::filesystem::path& path) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error))
    throw ChatFailure(path.string() + " is no file that can be read");
  const auto bytes = std::filesystem::file_size(path, error);
  if (error || bytes > mostFileBytes)
    throw ChatFailure(path.string() + " is larger than " +
                      std::to_string(mostFileBytes / (1024 * 1024)) + " MiB");
  std::ifstream in(path, std::ios::binary);
  std::string content(static_cast<std::size_t>(bytes), '\0');
  if (!in.read(content.data(), static_cast<std::streamsize>(bytes)))
    throw ChatFailure(path.string() + " can't be read");
  if (content.empty()) throw ChatFailure(path.string() + " is empty");
  return content;
}

bool isAway(const PubSubError& error) {
  return error.kind() == PubSubError::Kind::meetingReconnecting ||
         error.kind() == PubSubError::Kind::meetingNotJoined;
}

bool isAway(const RealtimeStoreError& error) {
  return error.kind() == RealtimeStoreError::Kind::meetingReconnecting ||
         error.kind() == RealtimeStoreError::Kind::meetingNotJoined;
}

}  // namespace

std::string ChatCommands::help() {
  return "commands: /set KEY VALUE (no value clears), /get KEY, /watch KEY, /file PATH, "
         "/say ID TEXT (or @ID TEXT, to a character), /interrupt ID, /rekey (reads --key-file "
         "again), /ratchet (the next key); //text says /text";
}

Task<ChatCommands::Outcome> ChatCommands::run(std::string line) {
  std::string failure;
  try {
    if (!isUtf8(line)) throw ChatFailure("a line that is not UTF-8");
    auto work = start(line);
    co_await std::move(work);
    co_return Outcome::done;
  } catch (const PubSubError& error) {
    if (isAway(error)) co_return Outcome::later;
    failure = error.what();
  } catch (const RealtimeStoreError& error) {
    if (isAway(error)) co_return Outcome::later;
    failure = error.what();
  } catch (const CharacterAway&) {
    co_return Outcome::later;
  } catch (const std::exception& error) {
    failure = error.what();
  }
  _watcher.note("chatError", {{"line", isUtf8(line) ? line : std::string()}, {"message", failure}},
                failure);
  co_return Outcome::failed;
}

Task<void> ChatCommands::start(const std::string& line) {
  struct Row {
    std::string_view command;
    bool takesKey;
    Operation operation;
  };
  static constexpr Row rows[] = {{"/set", true, &ChatCommands::set},
                                 {"/get", true, &ChatCommands::get},
                                 {"/watch", true, &ChatCommands::watch},
                                 {"/file", true, &ChatCommands::sendFile},
                                 {"/say", true, &ChatCommands::sayToCharacter},
                                 {"/interrupt", true, &ChatCommands::interrupt},
                                 {"/rekey", false, &ChatCommands::rekey},
                                 {"/ratchet", false, &ChatCommands::ratchet},
                                 {"/help", false, &ChatCommands::sayHelp}};
  // "@Grace look" is said to everybody.
  if (line.starts_with('@') && _characters.knows(firstWord(line.substr(1)).first))
    return sayToCharacter(line.substr(1));
  if (!line.starts_with('/')) return say(line);
  if (line.starts_with("//")) return say(line.substr(1));
  auto [command, rest] = firstWord(line);
  const auto* row = std::find_if(std::begin(rows), std::end(rows),
                                 [&](const Row& known) { return known.command == command; });
  if (row == std::end(rows)) throw ChatFailure("there is no " + command + "; " + help());
  if (row->takesKey && rest.empty()) throw ChatFailure(command + " needs more; " + help());
  return (this->*row->operation)(std::move(rest));
}

Task<void> ChatCommands::say(std::string message) {
  auto saying = _topic.say(message);
  co_await std::move(saying);
  _watcher.note("sent", {{"message", message}}, "");
}

Task<void> ChatCommands::sayHelp(std::string) {
  _watcher.note("help", {{"message", help()}}, help());
  co_return;
}

Task<void> ChatCommands::rekey(std::string) {
  rereadKey(_keyFile);
  _watcher.note("rekeyed", {}, "another key");
  co_return;
}

Task<void> ChatCommands::ratchet(std::string) {
  ratchetKey();
  _watcher.note("rekeyed", {}, "the next key");
  co_return;
}

// ---- Characters --------------------------------------------------------------------------------

Task<void> ChatCommands::sayToCharacter(std::string rest) {
  auto [id, words] = firstWord(rest);
  if (words.empty()) throw ChatFailure("there is nothing to say to " + id);
  return _characters.say(std::move(id), std::move(words));
}

Task<void> ChatCommands::interrupt(std::string id) {
  return _characters.interrupt(std::move(id));
}

// ---- The store ---------------------------------------------------------------------------------

void ChatCommands::tellValue(const char* event, Dictionary details, const std::string& key,
                             const std::optional<std::string>& value, const std::string& by) const {
  details["key"] = key;
  details["value"] = value ? Value(*value) : Value(nullptr);
  _watcher.note(event, std::move(details), key + (value ? " is " + *value : " has no value") + by);
}

std::string ChatCommands::nameOf(const std::string& participantId) const {
  const auto local = _meeting.localParticipant();
  if (participantId == local->id()) return local->displayName();
  const auto others = _meeting.participants();
  const auto found = others.find(participantId);
  return found == others.end() ? participantId : found->second->displayName();
}

Task<void> ChatCommands::set(std::string rest) {
  const auto [key, text] = firstWord(rest);
  const auto value = text.empty() ? std::nullopt : std::optional<std::string>(text);
  const auto store = _meeting.realtimeStore();
  auto setting = store->set(key, value);
  co_await std::move(setting);
  tellValue("stored", {}, key, value, "");
}

Task<void> ChatCommands::get(std::string key) {
  const auto store = _meeting.realtimeStore();
  auto getting = store->get(key);
  const std::optional<std::string> value = co_await std::move(getting);
  tellValue("value", {}, key, value, "");
}

Task<void> ChatCommands::watch(std::string key) {
  // Commands may be in the middle of anything when a change comes, but they are there.
  const auto [known, isNew] = _watched.try_emplace(key);
  if (isNew)
    known->second =
        makeStoreListener([this](const std::string& changed, const auto& value, const auto& by) {
          tellValue("store", {{"updatedBy", by}}, changed, value, " (by " + nameOf(by) + ")");
        });
  const auto store = _meeting.realtimeStore();
  const auto listener = known->second;
  auto observing = store->observe(key, listener);
  co_await std::move(observing);
  _watcher.note("watching", {{"key", key}}, "watching " + key);
}

// ---- Files -------------------------------------------------------------------------------------

Task<void> ChatCommands::sendFile(std::string path) {
  const std::filesystem::path file(path);
  const auto name = file.filename().string();
  const auto content = contentOf(file);
  auto uploading = upload(base64Encoded(content), name);
  const std::optional<std::string> url = co_await std::move(uploading);
  if (!url) throw ChatFailure(path + " was not stored by the service");
  _watcher.note("uploaded", {{"path", path}, {"url", *url}, {"bytes", content.size()}},
                name + " is stored");
  Dictionary payload{{"file", name}};
  auto saying = _topic.say(*url, std::move(payload));
  co_await std::move(saying);
}

Task<std::optional<std::string>> ChatCommands::upload(std::string base64, std::string name) {
  const auto start = [this, data = std::move(base64), file = std::move(name)](auto handler) {
    const auto waiting = std::make_shared<decltype(handler)>(std::move(handler));
    _meeting.uploadBase64File(data, _token, file, [waiting](const auto& url) {
      // It is called on a queue of the transfers, or before this very call is over.
      MainQueue::shared().async([waiting, url] { std::move (*waiting)(url); });
    });
  };
  co_return co_await boost::asio::async_initiate<const boost::asio::use_awaitable_t<>,
                                                 void(std::optional<std::string>)>(
      start, boost::asio::use_awaitable);
}

}  // namespace kestrova::meet
