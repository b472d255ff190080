#include <kestrova/tracing/Redaction.h>

#include <boost/regex.hpp>

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

namespace kestrova {
namespace {

constexpr std::string_view redactedText = "[REDACTED]";
constexpr std::string_view regexSyntax = "\\^$.|?*+()[]{}\"";
// Deep enough for any real payload, shallow enough to walk recursively.
constexpr std::size_t deepestJson = 256;

char lowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool isJsonSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

bool startsCharacter(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
}

std::string_view firstCharacters(std::string_view text, std::size_t count) {
  std::size_t end = 0;
  for (; end < text.size(); ++end)
    if (startsCharacter(text[end]) && count-- == 0) break;
  return text.substr(0, end);
}

std::string_view lastCharacters(std::string_view text, std::size_t count) {
  std::size_t start = text.size();
  while (start > 0 && count > 0)
    if (startsCharacter(text[--start])) --count;
  return text.substr(start);
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view space = " \t\n\v\f\r";
  const auto first = text.find_first_not_of(space);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(space) - first + 1);
}

bool looksLikeJson(std::string_view text) {
  if (text.size() < 2) return false;
  return (text.front() == '{' && text.back() == '}') || (text.front() == '[' && text.back() == ']');
}

// Where the text behind `\s*:\s*"` begins when that stands at `position`, else npos.
std::size_t valueStart(std::string_view text, std::size_t position) {
  auto skip = [&](char wanted) {
    while (position < text.size() && isJsonSpace(text[position])) ++position;
    return position < text.size() && text[position++] == wanted;
  };
  return skip(':') && skip('"') ? position : std::string_view::npos;
}

}  // namespace

std::string redacted(std::string_view value, const RedactionConfig& config) {
  if (value == redactedText) return std::string(value);
  const auto length =
      static_cast<std::size_t>(std::count_if(value.begin(), value.end(), startsCharacter));
  const bool tooShort = config.mode == RedactionMode::auto_ && length <= config.autoThreshold;
  const bool endsOverlap = config.visibleChars >= (length + 1) / 2;
  if (config.mode == RedactionMode::full || tooShort || endsOverlap)
    return std::string(redactedText);
  std::string result(firstCharacters(value, config.visibleChars));
  result += config.mask;
  result += lastCharacters(value, config.visibleChars);
  return result;
}

RedactionKeys::Lookup::Lookup(const std::set<std::string>& keys)
    : _keys(keys.begin(), keys.end()) {}

// Few keys and short ones: going through them costs less than to make a lower-case copy.
bool RedactionKeys::Lookup::contains(std::string_view key) const {
  const auto isThis = [key](const std::string& known) {
    return known.size() == key.size() &&
           std::equal(known.begin(), known.end(), key.begin(),
                      [](char lower, char given) { return lower == lowerCase(given); });
  };
  return std::any_of(_keys.begin(), _keys.end(), isThis);
}

struct RedactionKeys::Patterns {
  std::vector<boost::regex> all;
};

RedactionKeys::RedactionKeys(const std::set<std::string>& sensitiveKeys,
                             const std::set<std::string>& removalKeys)
    : _sensitiveKeys(sensitiveKeys), _removalKeys(removalKeys) {
  Patterns patterns;
  for (const auto& key : sensitiveKeys) {
    if (key.find_first_of(regexSyntax) == std::string::npos) continue;
    boost::regex pattern;
    const auto syntax = boost::regex::perl | boost::regex::icase | boost::regex::no_except;
    pattern.assign("\"" + key + R"re("\s*:\s*"([^"]+)")re", syntax);
    if (pattern.status() == 0) patterns.all.push_back(std::move(pattern));
  }
  _patterns = std::make_shared<const Patterns>(std::move(patterns));
}

std::shared_ptr<const RedactionKeys> RedactionKeys::defaults() {
  return std::make_shared<RedactionKeys>(
      std::set<std::string>{"token", "jwt", "apikey", "authtoken", "secret", "sessionid",
                            "password", "credential", "accesstoken", "refreshtoken", "id",
                            "signalingurl", "signalingbaseurl", "securekey"},
      std::set<std::string>{"consumerid", "producerid", "transportid", "method"});
}

bool RedactionKeys::isSensitive(std::string_view key) const {
  return _sensitiveKeys.contains(key);
}

bool RedactionKeys::isRemoved(std::string_view key) const {
  return _removalKeys.contains(key);
}

Redaction::Redaction(std::shared_ptr<const RedactionKeys> keys, RedactionConfig config)
    : _keys(std::move(keys)), _config(std::move(config)) {}

const Redaction& Redaction::standard() {
  static const auto& redaction = *new Redaction;
  return redaction;
}

TraceAttributes Redaction::redactIfNeeded(TraceAttributes attributes,
                                          bool canAccessSensitiveData) const {
  removeAttributes(attributes);
  if (!canAccessSensitiveData) redactAttributes(attributes);
  return attributes;
}

void Redaction::removeAttributes(TraceAttributes& attributes) const {
  std::erase_if(attributes, [&](const auto& pair) { return _keys->isRemoved(pair.first); });
  for (auto& [key, value] : attributes) value = removeNestedKeysIfJSONString(std::move(value));
}

void Redaction::redactAttributes(TraceAttributes& attributes) const {
  for (auto& [key, value] : attributes) {
    if (_keys->isSensitive(key))
      value = redacted(value, _config);
    else if (value.find('"') != std::string::npos)
      value = redactSensitivePatterns(value);
  }
}

std::string Redaction::removeNestedKeysIfJSONString(std::string value) const {
  const auto json = trimmed(value);
  if (!looksLikeJson(json)) return value;
  boost::json::parse_options options;
  options.max_depth = deepestJson;
  boost::system::error_code error;
  auto parsed = boost::json::parse(json, error, {}, options);
  if (error) return value;
  removeKeysDeep(parsed);
  return boost::json::serialize(parsed);
}

void Redaction::removeKeysDeep(Value& value) const {
  if (auto* list = value.if_array()) {
    for (auto& element : *list) removeKeysDeep(element);
    return;
  }
  auto* dictionary = value.if_object();
  if (!dictionary) return;
  for (auto pair = dictionary->begin(); pair != dictionary->end();) {
    if (_keys->isRemoved(pair->key())) {
      pair = dictionary->stable_erase(pair);
    } else {
      removeKeysDeep(pair->value());
      ++pair;
    }
  }
}

std::string Redaction::redactSensitivePatterns(std::string_view value) const {
  if (value.find('"') == std::string_view::npos) return std::string(value);
  return redactPatternKeys(redactPlainKeys(value));
}

// One pass for all keys: what stands between any two quotes may be one.
std::string Redaction::redactPlainKeys(std::string_view value) const {
  constexpr auto none = std::string_view::npos;
  std::string result;
  std::size_t copied = 0;
  auto open = value.find('"');
  while (open != none) {
    const auto close = value.find('"', open + 1);
    if (close == none) break;
    auto next = close;
    if (_keys->isSensitive(value.substr(open + 1, close - open - 1))) {
      const auto start = valueStart(value, close + 1);
      const auto end = start == none ? none : value.find('"', start);
      if (end != none && end > start) {
        result += value.substr(copied, start - copied);
        result += redacted(value.substr(start, end - start), _config);
        copied = next = end;
      }
    }
    open = next;
  }
  result += value.substr(copied);
  return result;
}

std::string Redaction::redactPatternKeys(std::string value) const try {
  for (const auto& pattern : _keys->patterns().all) {
    std::string result;
    auto copied = value.cbegin();
    for (boost::sregex_iterator match(value.cbegin(), value.cend(), pattern), end; match != end;
         ++match) {
      const auto& secret = (*match)[1];
      if (!secret.matched) continue;
      result.append(copied, secret.first);
      result += redacted(std::string_view(secret.first, secret.second), _config);
      copied = secret.second;
    }
    result.append(copied, value.cend());
    value = std::move(result);
  }
  return value;
} catch (const std::runtime_error&) {  // too costly a match: nothing may slip through
  return std::string(redactedText);
}

TraceAttributes endAttributes(const SpanEnd& span, const TraceOutput& output) {
  return output.canAccessSensitiveData()
             ? span.attributes
             : Redaction::standard().redactIfNeeded(span.attributes, false);
}

}  // namespace kestrova
