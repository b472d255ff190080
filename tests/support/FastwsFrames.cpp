#include "FastwsFrames.h"

#include <kestrova/realtime/ProtoReader.h>
#include <kestrova/realtime/ProtoWriter.h>

namespace kestrova::test {
namespace {

/// Fields one by one, as a program would that knows the numbers only.
class Fields {
public:
  Fields& text(std::uint64_t field, std::string_view value) {
    if (!value.empty()) _writer.writeBytes(field, bytesOf(value));
    return *this;
  }
  Fields& bytes(std::uint64_t field, ByteView value) {
    _writer.writeBytes(field, value);
    return *this;
  }
  Fields& number(std::uint64_t field, std::uint64_t value) {
    if (value == 0) return *this;
    _writer.writeVarint(field << 3);
    _writer.writeVarint(value);
    return *this;
  }
  Bytes take() { return _writer.take(); }

private:
  ProtoWriter _writer;
};

Bytes envelope(std::uint64_t field, ByteView message) {
  return Fields().bytes(field, message).take();
}

}  // namespace

ClientFrame::ClientFrame(ByteView frame) {
  ProtoReader outer(frame);
  kind = outer.readKey().field;
  ProtoReader reader(outer.readBytes());
  while (!reader.atEnd()) {
    const auto key = reader.readKey();
    if (key.wireType == WireType::varint)
      numbers[key.field] = reader.readVarint();
    else
      texts[key.field].emplace_back(textOf(reader.readBytes()));
  }
}

std::string ClientFrame::text(std::uint64_t field) const {
  const auto found = texts.find(field);
  return found == texts.end() ? "" : found->second.back();
}

std::int64_t ClientFrame::number(std::uint64_t field) const {
  const auto found = numbers.find(field);
  return found == numbers.end() ? 0 : static_cast<std::int64_t>(found->second);
}

std::string ClientFrame::requestId() const {
  return text(kind == subscribe ? 6 : kind == publish ? 10 : kind == unsubscribe ? 2 : 4);
}

Bytes encodeMessage(const TopicMessage& message) {
  return Fields()
      .text(1, message.message)
      .text(2, message.payload)
      .text(4, message.senderId)
      .number(9, message.seqNum)
      .take();
}

Bytes batchFrame(const BatchFrame& batch) {
  Fields fields;
  fields.text(1, batch.topic);
  for (const auto& message : batch.messages) fields.bytes(2, encodeMessage(message));
  fields.text(3, batch.history ? "old-messages" : "new-messages");
  fields.number(6, batch.isLast ? 1 : 0).text(8, batch.requestId);
  return envelope(1, fields.take());
}

Bytes batchFrame(std::string_view topic, const std::vector<Bytes>& entries) {
  Fields fields;
  fields.text(1, topic);
  for (const auto& entry : entries) fields.bytes(2, entry);
  return envelope(1, fields.take());
}

Bytes ackFrame(std::string_view requestId, bool ok, std::string_view error,
               std::string_view messageId) {
  return envelope(
      2,
      Fields().text(1, requestId).number(2, ok ? 1 : 0).text(3, error).text(4, messageId).take());
}

Bytes welcomeFrame(std::uint64_t pingIntervalMs) {
  return envelope(3, Fields().number(1, pingIntervalMs).take());
}

Bytes pingFrame(std::uint64_t seq) {
  return envelope(4, Fields().number(1, seq).take());
}

}  // namespace kestrova::test
