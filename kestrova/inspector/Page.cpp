#include <kestrova/inspector/Page.h>

namespace kestrova::inspector {
namespace {

constexpr char text[] =
#include "page.inc"
    ;

}  // namespace

std::string_view page() {
  return {text, sizeof text - 1};
}

}  // namespace kestrova::inspector
