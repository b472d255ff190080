#include <kestrova/model/KestrovaError.h>
#include <kestrova/model/Secrets.h>

#include <algorithm>
#include <array>

namespace kestrova {
namespace {

struct Row {
  int code;
  std::string_view name;
  std::string_view message;
};

constexpr auto catalogue = std::to_array<Row>({
#define KESTROVA_ERROR(code, name, text) {code, #name, text},
#include <kestrova/model/ErrorCatalogue.inc>
#undef KESTROVA_ERROR
});

static_assert(std::is_sorted(catalogue.begin(), catalogue.end(),
                             [](const Row& left, const Row& right) {
                               return left.code <= right.code;
                             }),
              "looked up by binary search, and no code twice");

const Row* findRow(int code) {
  const auto* row =
      std::lower_bound(catalogue.begin(), catalogue.end(), code,
                       [](const Row& each, int wanted) { return each.code < wanted; });
  return row != catalogue.end() && row->code == code ? row : nullptr;
}

// ---- Causes ------------------------------------------------------------------------------------

constexpr std::size_t longestCause = 300;

/// Cuts between characters, not within one.
void shorten(std::string& line) {
  if (line.size() <= longestCause) return;
  constexpr std::string_view dots = "...";
  auto end = longestCause - dots.size();
  while (end > 0 && (static_cast<unsigned char>(line[end]) & 0xC0) == 0x80) --end;
  line.resize(end);
  line += dots;
}

std::string causeLine(std::string_view cause) {
  std::string line;
  while (!cause.empty()) {
    const auto end = std::find_if(cause.begin(), cause.end(), separatesWords) - cause.begin();
    const auto length = static_cast<std::size_t>(end);
    line += withoutSecrets(cause.substr(0, length));
    if (length == cause.size()) break;
    const char mark = cause[length];
    const bool isBlank = static_cast<unsigned char>(mark) <= 0x20 || mark == 0x7f;
    if (!isBlank) line += mark;
    if (isBlank && !line.empty() && line.back() != ' ') line += ' ';
    cause.remove_prefix(length + 1);
  }
  while (!line.empty() && line.back() == ' ') line.pop_back();
  shorten(line);
  return line;
}

}  // namespace

// Initialised before any code runs, so that the constants may be used by other initialisers.
#define KESTROVA_ERROR(code, name, text) \
  constinit const KestrovaError KestrovaError::name{code, CatalogueName{#name}};
#include <kestrova/model/ErrorCatalogue.inc>
#undef KESTROVA_ERROR

KestrovaError::KestrovaError(const KestrovaError& other) = default;
KestrovaError::KestrovaError(KestrovaError&& other) noexcept = default;
KestrovaError& KestrovaError::operator=(const KestrovaError& other) = default;
KestrovaError& KestrovaError::operator=(KestrovaError&& other) noexcept = default;
KestrovaError::~KestrovaError() = default;

std::optional<KestrovaError> KestrovaError::fromRawValue(int rawValue) {
  const auto* row = findRow(rawValue);
  if (!row) return std::nullopt;
  return KestrovaError(row->code, CatalogueName{row->name});
}

std::string KestrovaError::message() const {
  if (_messageOverride) return *_messageOverride;
  const auto* row = findRow(_rawValue);
  if (row && !row->message.empty()) return std::string(row->message);
  return "Server Error: " + std::string(constantName()) + " | Code: " + std::to_string(_rawValue);
}

KestrovaError KestrovaError::withCause(std::string cause) const {
  auto copy = *this;
  copy._cause = causeLine(cause);
  return copy;
}

std::string text(const KestrovaError& error) {
  auto line = std::to_string(error.rawValue()) + " " + error.constantName() + ": ";
  line += error.message();
  if (!error.cause().empty()) line += " (" + error.cause() + ")";
  return line;
}

const std::map<int, std::string_view>& KestrovaError::knownErrorNames() {
  static const auto& names = *[] {
    auto* all = new std::map<int, std::string_view>;
    for (const auto& row : catalogue) all->emplace(row.code, row.name);
    return all;
  }();
  return names;
}

}  // namespace kestrova
