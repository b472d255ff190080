#include <kestrova/realtime/Base64.h>

#include <boost/archive/iterators/base64_from_binary.hpp>
#include <boost/archive/iterators/transform_width.hpp>

namespace kestrova {

std::string base64Encoded(std::string_view bytes) {
  using namespace boost::archive::iterators;
  using Sextets = base64_from_binary<transform_width<const char*, 6, 8>>;
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  text.assign(Sextets(bytes.data()), Sextets(bytes.data() + bytes.size()));
  text.append((3 - bytes.size() % 3) % 3, '=');
  return text;
}

}  // namespace kestrova
