#pragma once

#include <kestrova/realtime/Bytes.h>

#include <google/protobuf/descriptor.h>

namespace kestrova::test {

/// What a frame has in it that libprotobuf and this library take differently, on purpose.
struct Oddities {
  // This library skips what it doesn't know; libprotobuf refuses the frame, or misreads it.
  bool fieldZero = false;   ///< no schema may have a field of this number
  bool wideKey = false;     ///< more than 32 bits, or than 5 bytes: libprotobuf drops the rest
  bool longLength = false;  ///< a length of more than 5 bytes

  // This library refuses these; libprotobuf reads on.
  bool group = false;      ///< it knows no groups, also where they are complete
  bool tenthByte = false;  ///< a varint of more than 64 bits, of which libprotobuf drops some
  bool noKind = false;     ///< of a message that is a choice

  /// Of the kinds of a choice the last that occurs, with its key; empty when it occurs alone.
  /// libprotobuf merges those that are alike; here the last one counts.
  Bytes lastKind;

  bool oursOnly() const { return fieldZero || wideKey || longLength; }
  bool theirsOnly() const { return group || tenthByte || noKind; }
};

Oddities odditiesOf(ByteView frame, const google::protobuf::Descriptor& type);

}  // namespace kestrova::test
