// What reading a frame of topic messages and writing one cost, against what protoc and libprotobuf
// make of the same schema. All variants take turns in each round, so that a busy machine slows all
// of them alike; the figures are medians of the rounds' own ratios.
//
//   bench_pubsub_codec [rounds]

#include <kestrova/realtime/FastwsMessages.h>
#include <kestrova/realtime/PubSubMessage.h>
#include <kestrova/realtime/PubSubWireTypes.h>

#include <google/protobuf/arena.h>

#include "Allocations.h"
#include "fastws.pb.h"
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace kestrova::bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kMessages = 100;
constexpr std::size_t kMessageBytes = 200;
constexpr int kDecodesARound = 100;
constexpr int kEncodesARound = 5000;

/// What was read, so that no compiler leaves the reading out.
std::size_t seen = 0;

struct Variant {
  const char* name;
  std::function<void()> run;
  std::vector<double> nanoseconds = {};
  double allocationsEach = 0;
};

void measure(Variant& variant, int times) {
  const auto before = allocations();
  const auto start = Clock::now();
  for (int i = 0; i < times; ++i) variant.run();
  const std::chrono::duration<double, std::nano> took = Clock::now() - start;
  variant.nanoseconds.push_back(took.count() / times);
  variant.allocationsEach = static_cast<double>(allocations() - before) / times;
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

/// The first variant is what the others are held against.
void compare(const char* what, std::vector<Variant> variants, int rounds, int times) {
  for (auto& variant : variants) variant.run();  // warm
  for (int round = 0; round < rounds; ++round)
    for (auto& variant : variants) measure(variant, times);
  std::printf("%s\n  %-58s %10s %7s %7s\n", what, "", "ns", "allocs", "ratio");
  for (const auto& variant : variants) {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < variant.nanoseconds.size(); ++i)
      ratios.push_back(variant.nanoseconds[i] / variants.front().nanoseconds[i]);
    std::printf("  %-58s %10.0f %7.0f %7.2f\n", variant.name, median(variant.nanoseconds),
                variant.allocationsEach, median(ratios));
  }
}

// ---- Decoding ----------------------------------------------------------------------------------

/// \param word what the text of a message is made of
std::string batchFrame(const std::string& word) {
  fastws::FastwsServerEnvelope envelope;
  auto& batch = *envelope.mutable_batch();
  batch.set_topic("CHAT");
  batch.set_start_seq(1001);
  batch.set_end_seq(1000 + kMessages);
  batch.set_batch_seq(17);
  for (int i = 0; i < kMessages; ++i) {
    fastws::FastwsServerMessage message;
    message.set_timestamp("2026-01-31T12:00:00Z");
    message.set_sender_id("participant-" + std::to_string(10 + i % 10));
    message.set_sender_name("Ada Lovelace");
    message.set_message_id("mk3x2f9a-0a1b2c3d");
    message.set_seq_num(static_cast<std::uint64_t>(1001 + i));
    message.set_message("");
    while (message.ByteSizeLong() + word.size() + 3 <= kMessageBytes)
      *message.mutable_message() += word;
    *batch.add_payloads() = message.SerializeAsString();
  }
  return envelope.SerializeAsString();
}

void readOurs(ByteView frame) {
  const FastwsServerEnvelope envelope(frame);
  const auto& batch = std::get<FastwsServerBatch>(envelope.kind);
  for (const auto& message : batch.decodedMessages()) seen += message.message.size();
}

void readOwned(ByteView frame) {
  const FastwsServerEnvelope envelope(frame);
  const auto& batch = std::get<FastwsServerBatch>(envelope.kind);
  const auto messages = batch.decodedMessages();
  std::vector<PubSubMessage> owned;
  owned.reserve(messages.size());
  for (const auto& message : messages)
    owned.push_back(PubSubMessage::fromFastws(batch.topic, message));
  seen += owned.size();
}

void readWith(const std::string& frame, fastws::FastwsServerEnvelope& envelope,
              fastws::FastwsServerMessage& message) {
  if (!envelope.ParseFromString(frame)) std::abort();
  for (const auto& payload : envelope.batch().payloads()) {
    if (!message.ParseFromString(payload)) std::abort();
    seen += message.message().size();
  }
}

void readTheirs(const std::string& frame) {
  fastws::FastwsServerEnvelope envelope;
  if (!envelope.ParseFromString(frame)) std::abort();
  std::vector<fastws::FastwsServerMessage> messages;
  messages.reserve(static_cast<std::size_t>(envelope.batch().payloads_size()));
  for (const auto& payload : envelope.batch().payloads())
    if (!messages.emplace_back().ParseFromString(payload)) std::abort();
  for (const auto& message : messages) seen += message.message().size();
}

void readOnArena(const std::string& frame) {
  google::protobuf::Arena arena;
  auto& envelope = *google::protobuf::Arena::CreateMessage<fastws::FastwsServerEnvelope>(&arena);
  if (!envelope.ParseFromString(frame)) std::abort();
  for (const auto& payload : envelope.batch().payloads()) {
    auto& message = *google::protobuf::Arena::CreateMessage<fastws::FastwsServerMessage>(&arena);
    if (!message.ParseFromString(payload)) std::abort();
    seen += message.message().size();
  }
}

void compareDecoding(const char* what, const std::string& word, int rounds) {
  const auto frame = batchFrame(word);
  const auto bytes = bytesOf(frame);
  fastws::FastwsServerEnvelope envelope;
  fastws::FastwsServerMessage message;
  compare(what,
          {{"kestrova: envelope, batch and entries, which refer to the frame",
            [&] { readOurs(bytes); }},
           {"kestrova: and a PubSubMessage of its own from each", [&] { readOwned(bytes); }},
           {"protobuf: fresh messages", [&] { readTheirs(frame); }},
           {"protobuf: fresh messages on an arena", [&] { readOnArena(frame); }},
           {"protobuf: one envelope and one message, used again and again",
            [&] { readWith(frame, envelope, message); }}},
          rounds, kDecodesARound);
}

// ---- Encoding ----------------------------------------------------------------------------------

fastws::FastwsClientMessage filled(const FastwsPublishParams& params) {
  fastws::FastwsClientMessage client;
  auto& publish = *client.mutable_publish();
  publish.set_topic(params.topic);
  publish.set_payload(params.payload.data(), params.payload.size());
  publish.set_message(params.message);
  publish.set_timestamp(params.timestamp);
  publish.set_sender_id(params.senderId);
  publish.set_sender_name(params.senderName);
  publish.set_persist(params.persist);
  publish.set_message_id(params.messageId);
  publish.set_request_id(params.requestId);
  return client;
}

void compareEncoding(int rounds) {
  const std::string json = R"({"colour":"blue","size":12})";
  FastwsPublishParams params{.topic = "CHAT",
                             .message = std::string(kMessageBytes, 'm'),
                             .payload = {json.begin(), json.end()},
                             .sendOnly = {},
                             .persist = true,
                             .senderId = "participant-10",
                             .senderName = "Ada Lovelace",
                             .timestamp = "2026-01-31T12:00:00Z",
                             .messageId = "mk3x2f9a-0a1b2c3d",
                             .requestId = "mk3x2f9a-4e5f6g7h"};
  const auto made = filled(params);
  const auto ours = FastwsClientMessage{params.makePublish()}.encoded();
  if (made.SerializeAsString() != textOf(ours)) std::abort();
  compare("Writing a publish with 200 bytes of text",
          {{"kestrova: from the parameters of the call",
            [&] { seen += FastwsClientMessage{params.makePublish()}.encoded().size(); }},
           {"protobuf: from the same, a message filled and serialised",
            [&] { seen += filled(params).SerializeAsString().size(); }},
           {"protobuf: a message that is there already, only serialised",
            [&] { seen += made.SerializeAsString().size(); }}},
          rounds, kEncodesARound);
}

}  // namespace
}  // namespace kestrova::bench

int main(int count, char** arguments) {
  using namespace kestrova::bench;
  const int rounds = count > 1 ? std::atoi(arguments[1]) : 51;
  if (rounds < 1) {
    std::fprintf(stderr, "usage: bench_pubsub_codec [rounds]\n");
    return 1;
  }
  compareDecoding("Reading a frame of 100 messages of 200 bytes, ASCII", "lorem ipsum ", rounds);
  compareDecoding("The same in Greek", "λόρεμ ίψουμ ", rounds);
  compareEncoding(rounds);
  std::printf("(%zu)\n", seen);
}
