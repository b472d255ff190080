#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace kestrova {

/// One HTTP/1.1 response under construction: a status line, header lines, an empty line and the
/// body, as bytes of a stream bring them. Its memory is used again for the next one.
class HTTPMessage {
public:
  /// A header is at most what one read brings; what is longer is none.
  static constexpr std::size_t longestHeader = 10'240;
  /// No picture of a screen is larger, in bytes.
  static constexpr std::int64_t longestBody = 64 * 1024 * 1024;

  void appendBytes(std::span<const std::uint8_t> bytes);
  bool isEmpty() const { return _bytes.empty(); }
  bool isHeaderComplete() const { return _bodyStart > 0; }
  /// Whether what came can't become the header of a response any more.
  bool isMalformed() const;
  /// The value of a header, whose name may be written in any case; nothing when it is missing or no
  /// decimal text. Valid once the header is complete.
  std::optional<std::int64_t> headerValue(std::string_view name) const;
  /// All that came behind the header, up to now.
  std::span<const std::uint8_t> body() const;
  /// What came after the first `length` bytes of the body is of the next message.
  void endBody(std::size_t length);

  /// Makes it an empty one.
  void reset();

private:
  std::string_view header() const;

  std::vector<std::uint8_t> _bytes;
  std::size_t _headerStart = 0;  // of the status line: what stood before it is no part of it
  std::size_t _bodyStart = 0;    // 0 while the header is incomplete
  bool _hasStatusLine = false;
};

}  // namespace kestrova
