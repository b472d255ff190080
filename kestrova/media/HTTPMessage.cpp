#include <kestrova/media/HTTPMessage.h>

#include <boost/algorithm/string/predicate.hpp>

#include <algorithm>
#include <charconv>

namespace kestrova {
namespace {

constexpr std::string_view endOfLine = "\r\n";
constexpr std::string_view endOfHeader = "\r\n\r\n";
constexpr std::string_view statusLineStart = "HTTP/1.";
/// Memory beyond this is given back after the message that needed it.
constexpr std::size_t keptBytes = 4 * 1024 * 1024;

std::string_view textOf(std::span<const std::uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::optional<std::int64_t> decimal(std::string_view written) {
  std::int64_t value = 0;
  const auto* end = written.data() + written.size();
  const auto [stop, error] = std::from_chars(written.data(), end, value);
  if (error != std::errc() || stop != end || written.empty()) return std::nullopt;
  return value;
}

std::string_view trimmed(std::string_view padded) {
  const auto first = padded.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return padded.substr(first, padded.find_last_not_of(" \t") - first + 1);
}

}  // namespace

void HTTPMessage::appendBytes(std::span<const std::uint8_t> bytes) {
  const auto before = _bytes.size();
  _bytes.insert(_bytes.end(), bytes.begin(), bytes.end());
  if (isHeaderComplete()) return;
  // The mark may have begun in what came earlier.
  const auto from = before < endOfHeader.size() ? 0 : before - endOfHeader.size() + 1;
  const auto mark = textOf(_bytes).find(endOfHeader, from);
  if (mark == std::string_view::npos || mark > longestHeader) return;
  _bodyStart = mark + endOfHeader.size();
  // After a broken frame the rest of it stands before the next status line.
  const auto status = textOf(_bytes).substr(0, mark).rfind(statusLineStart);
  _hasStatusLine = status != std::string_view::npos;
  _headerStart = _hasStatusLine ? status : mark;
}

bool HTTPMessage::isMalformed() const {
  return isHeaderComplete() ? !_hasStatusLine : _bytes.size() >= longestHeader + endOfHeader.size();
}

std::string_view HTTPMessage::header() const {
  return textOf(_bytes).substr(_headerStart, _bodyStart - _headerStart);
}

std::optional<std::int64_t> HTTPMessage::headerValue(std::string_view name) const {
  auto lines = header();
  while (!lines.empty()) {
    const auto end = std::min(lines.find(endOfLine), lines.size());
    const auto line = lines.substr(0, end);
    lines.remove_prefix(std::min(end + endOfLine.size(), lines.size()));
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    if (boost::algorithm::iequals(line.substr(0, colon), name))
      return decimal(trimmed(line.substr(colon + 1)));
  }
  return std::nullopt;
}

std::span<const std::uint8_t> HTTPMessage::body() const {
  return std::span(_bytes).subspan(_bodyStart);
}

void HTTPMessage::endBody(std::size_t length) {
  _bytes.resize(std::min(_bytes.size(), _bodyStart + length));
}

void HTTPMessage::reset() {
  _bytes.clear();
  if (_bytes.capacity() > keptBytes) _bytes.shrink_to_fit();
  _headerStart = _bodyStart = 0;
  _hasStatusLine = false;
}

}  // namespace kestrova
