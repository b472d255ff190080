#include <kestrova/inspector/Clock.h>
#include <kestrova/platform/Platform.h>

namespace kestrova::inspector {

Ms now() {
  return Platform::current()->scheduler->wallClockMs();
}

}  // namespace kestrova::inspector
