#include <kestrova/model/MetaData.h>
#include <kestrova/platform/Values.h>

#include <utility>

namespace kestrova {

MetaData::MetaData(const Dictionary& dictionary)
    : _dictionary(std::make_shared<const Dictionary>(dictionary)) {}

MetaData::MetaData(Dictionary&& dictionary)
    : _dictionary(std::make_shared<const Dictionary>(std::move(dictionary))) {}

bool operator==(const MetaData& left, const MetaData& right) {
  if (!left || !right) return left.has_value() == right.has_value();
  return *left == *right;
}

}  // namespace kestrova
