#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace kestrova::bench {

inline constexpr int kListeners = 10;
inline constexpr std::size_t kMessageBytes = 200;
inline constexpr const char* kTopic = "CHAT";

/// One publisher and ten listeners of a topic, however they are connected.
class Crowd {
public:
  struct Events {
    std::function<void()> acknowledged;                   ///< a publish
    std::function<void(std::uint32_t number)> delivered;  ///< a message to one listener
  };

  virtual ~Crowd() = default;
  /// What happens is told on any thread, from now on.
  void listen(Events events) { _events = std::move(events); }
  /// Sends the message of that number. Any thread.
  virtual void publish(std::uint32_t number) = 0;

protected:
  static constexpr std::size_t digits = 9;
  static std::string textOf(std::uint32_t number) {
    auto text = std::to_string(number);
    text.insert(0, digits - text.size(), '0');
    text.resize(kMessageBytes, '.');
    return text;
  }
  /// \param text with the number in its first digits
  static std::uint32_t numberOf(const char* text) {
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < digits; ++i)
      number = number * 10 + static_cast<std::uint32_t>(text[i] - '0');
    return number;
  }

  Events _events;
};

}  // namespace kestrova::bench
