#pragma once

#include <kestrova/realtime/Bytes.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kestrova {

// The messages of fastws, the WebSocket protocol of topic messages: each frame is one
// `FastwsClientMessage` or, from the server, one `FastwsServerEnvelope`, in protobuf's encoding.
//
// They own no text and no bytes. What is to be encoded refers to the caller's, what was decoded to
// the frame: it is good for as long as the frame is. `fields` names every field once, with its
// number on the wire, in ascending order; encoding and decoding go by it.

// ---- From the client ---------------------------------------------------------------------------

struct FastwsSubscribe {
  std::string_view topic;
  std::string_view peerId;
  std::int32_t oldMessageLimit = 0;   ///< stored messages to replay; -1: no limit
  std::string_view realtimeOverflow;  ///< "queue" or "drop"
  std::int32_t queueSize = 0;         ///< bound of the server's queue; 0: none asked for
  std::string_view requestId;
  std::int32_t newMessageLimit = 0;

  template <class Self, class Visit>
  static void fields(Self& self, Visit visit) {
    visit(1, self.topic);
    visit(2, self.peerId);
    visit(3, self.oldMessageLimit);
    visit(4, self.realtimeOverflow);
    visit(5, self.queueSize);
    visit(6, self.requestId);
    visit(7, self.newMessageLimit);
  }
  Bytes encoded() const;
};

struct FastwsUnsubscribe {
  std::string_view topic;
  std::string_view requestId;

  template <class Self, class Visit>
  static void fields(Self& self, Visit visit) {
    visit(1, self.topic);
    visit(2, self.requestId);
  }
  Bytes encoded() const;
};

struct FastwsPublish {
  std::string_view topic;
  ByteView payload;
  std::string_view message;
  std::span<const std::string> sendOnly;  ///< participants that get it; empty: all
  std::string_view timestamp;
  std::string_view senderId;
  std::string_view senderName;
  bool persist = false;  ///< stored for later replay
  std::string_view messageId;
  std::string_view requestId;

  template <class Self, class Visit>
  static void fields(Self& self, Visit visit) {
    visit(1, self.topic);
    visit(2, self.payload);
    visit(3, self.message);
    visit(4, self.sendOnly);
    visit(5, self.timestamp);
    visit(6, self.senderId);
    visit(7, self.senderName);
    visit(8, self.persist);
    visit(9, self.messageId);
    visit(10, self.requestId);
  }
  Bytes encoded() const;
};

/// Part of the protocol; this client gets history with its subscriptions and sends none.
struct FastwsGetHistory {
  std::string_view topic;
  std::string_view persistMsgId;
  std::uint32_t batchSize = 0;
  std::string_view requestId;

  template <class Self, class Visit>
  static void fields(Self& self, Visit visit) {
    visit(1, self.topic);
    visit(2, self.persistMsgId);
    visit(3, self.batchSize);
    visit(4, self.requestId);
  }
  Bytes encoded() const;
};

struct FastwsPong {
  std::uint64_t seq = 0;  ///< of the ping that it answers

  template <class Self, class Visit>
  static void fields(Self& self, Visit visit) {
    visit(1, self.seq);
  }
  Bytes encoded() const;
};

struct FastwsClientMessage {
  /// The field number on the wire is the place in this list, counted from 1.
  using Kind =
      std::variant<FastwsSubscribe, FastwsUnsubscribe, FastwsPublish, FastwsGetHistory, FastwsPong>;
  Kind kind;
  Bytes encoded() const;
};

// ---- From the server ---------------------------------------------------------------------------

// Each is made of bytes or throws `ProtoDecodeError`.

/// One message to a topic.
struct FastwsServerMessage {
  std::string_view message;
  ByteView payload;
  std::string_view timestamp;
  std::string_view senderId;
  std::string_view senderName;
  std::string_view persistMsgId;
  std::string_view messageId;
  std::vector<std::string_view> sendOnly;
  std::uint64_t seqNum = 0;  ///< in its topic; 0: it has none

  FastwsServerMessage() = default;
  explicit FastwsServerMessage(ByteView decoding);

  template <class Self, class Visit>
  static void fields(Self& self, Visit visit) {
    visit(1, self.message);
    visit(2, self.payload);
    visit(3, self.timestamp);
    visit(4, self.senderId);
    visit(5, self.senderName);
    visit(6, self.persistMsgId);
    visit(7, self.messageId);
    visit(8, self.sendOnly);
    visit(9, self.seqNum);
  }
};

struct FastwsServerBatch {
  static constexpr std::string_view oldMessages = "old-messages";
  /// Entries of a list beyond this many are left out: a frame of empty ones must not take many
  /// times its own memory.
  static constexpr std::size_t mostEntries = 65'536;

  std::string_view topic;
  std::vector<ByteView> payloads;  ///< each one a `FastwsServerMessage` of its own
  std::string_view batchType;      ///< `oldMessages`: history; anything else: live
  std::uint64_t startSeq = 0;
  std::uint64_t endSeq = 0;
  bool isLast = false;
  std::uint64_t batchSeq = 0;
  std::string_view requestId;  ///< whose replay it is; may be empty

  FastwsServerBatch() = default;
  explicit FastwsServerBatch(ByteView decoding);

  /// In order, without those that can't be decoded.
  std::vector<FastwsServerMessage> decodedMessages() const;

  template <class Self, class Visit>
  static void fields(Self& self, Visit visit) {
    visit(1, self.topic);
    visit(2, self.payloads);
    visit(3, self.batchType);
    visit(4, self.startSeq);
    visit(5, self.endSeq);
    visit(6, self.isLast);
    visit(7, self.batchSeq);
    visit(8, self.requestId);
  }
};

struct FastwsAck {
  std::string_view requestId;
  bool ok = false;
  std::string_view error;
  std::string_view messageId;  ///< of a publish

  FastwsAck() = default;
  explicit FastwsAck(ByteView decoding);

  template <class Self, class Visit>
  static void fields(Self& self, Visit visit) {
    visit(1, self.requestId);
    visit(2, self.ok);
    visit(3, self.error);
    visit(4, self.messageId);
  }
};

struct FastwsWelcome {
  std::uint32_t pingIntervalMs = 0;  ///< 0: the client's default

  FastwsWelcome() = default;
  explicit FastwsWelcome(ByteView decoding);

  template <class Self, class Visit>
  static void fields(Self& self, Visit visit) {
    visit(1, self.pingIntervalMs);
  }
};

struct FastwsPing {
  std::uint64_t seq = 0;

  FastwsPing() = default;
  explicit FastwsPing(ByteView decoding);

  template <class Self, class Visit>
  static void fields(Self& self, Visit visit) {
    visit(1, self.seq);
  }
};

struct FastwsServerEnvelope {
  /// The field number on the wire is the place in this list, counted from 1.
  using Kind = std::variant<FastwsServerBatch, FastwsAck, FastwsWelcome, FastwsPing>;
  Kind kind;

  /// Of several kinds in one frame the last counts. \throws ProtoDecodeError also when there is
  /// none
  explicit FastwsServerEnvelope(ByteView decoding);
};

}  // namespace kestrova
