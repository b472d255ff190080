// One frame of the topic server. Whatever it holds is read or refused; what was read lies in the
// frame, and a list has its bound.
#include <kestrova/realtime/FastwsMessages.h>
#include <kestrova/realtime/ProtoReader.h>
#include <kestrova/realtime/PubSubMessage.h>

#include "Require.h"
#include <concepts>
#include <memory>
#include <variant>

using namespace kestrova;
using fuzz::require;

namespace {

class Inspection {
public:
  explicit Inspection(ByteView frame) : _frame(frame) {}

  template <class Message>
  void operator()(const Message& message) const {
    Message::fields(message, [this](int, const auto& field) { check(field); });
    if constexpr (std::same_as<Message, FastwsServerBatch>) checkEntries(message);
  }

private:
  void check(std::integral auto) const {}
  void check(ByteView bytes) const {
    if (bytes.empty()) return;
    require(bytes.data() >= _frame.data() &&
                bytes.data() + bytes.size() <= _frame.data() + _frame.size(),
            "what was read lies in the frame");
  }
  void check(std::string_view text) const {
    check(bytesOf(text));
    require(isUtf8(text), "a text is UTF-8");
  }
  template <class T>
  void check(const std::vector<T>& list) const {
    require(list.size() <= FastwsServerBatch::mostEntries, "a list has its bound");
    for (const auto& entry : list) check(entry);
  }
  void checkEntries(const FastwsServerBatch& batch) const {
    const auto messages = batch.decodedMessages();
    require(messages.size() <= batch.payloads.size(), "an entry is one message at most");
    for (const auto& message : messages) {
      (*this)(message);
      const auto owned = PubSubMessage::fromFastws(batch.topic, message);
      require(owned.message == message.message, "a listener gets the text as it came");
    }
  }

  const ByteView _frame;
};

template <class Message>
void read(ByteView frame) {
  try {
    Inspection inspection(frame);
    inspection(Message(frame));
  } catch (const ProtoDecodeError&) {
  }
}

template <>
void read<FastwsServerEnvelope>(ByteView frame) {
  try {
    std::visit(Inspection(frame), FastwsServerEnvelope(frame).kind);
  } catch (const ProtoDecodeError&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Memory of just this size, so that a sanitizer sees a step beyond it.
  const auto copy = std::make_unique<std::uint8_t[]>(size);
  std::copy(data, data + size, copy.get());
  const ByteView frame(copy.get(), size);
  read<FastwsServerEnvelope>(frame);
  read<FastwsServerBatch>(frame);
  read<FastwsServerMessage>(frame);
  read<FastwsAck>(frame);
  read<FastwsWelcome>(frame);
  read<FastwsPing>(frame);
  return 0;
}
