#include <kestrova/model/KestrovaError.h>

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

}  // namespace

// Initialised before any code runs, so that the constants may be used by other initialisers.
#define KESTROVA_ERROR(code, name, text) \
  constinit const KestrovaError KestrovaError::name{code, CatalogueName{#name}};
#include <kestrova/model/ErrorCatalogue.inc>
#undef KESTROVA_ERROR

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

const std::map<int, std::string_view>& KestrovaError::knownErrorNames() {
  static const auto& names = *[] {
    auto* all = new std::map<int, std::string_view>;
    for (const auto& row : catalogue) all->emplace(row.code, row.name);
    return all;
  }();
  return names;
}

}  // namespace kestrova
