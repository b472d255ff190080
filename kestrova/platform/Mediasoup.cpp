#include <kestrova/platform/Mediasoup.h>
#include <kestrova/platform/Task.h>
#include <kestrova/platform/Values.h>

#include <utility>

namespace kestrova {

Task<List> Transport::statsList() {
  return [](Task<std::string> asking) -> Task<List> {
    const auto text = co_await std::move(asking);
    auto parsed = parseJson(text, storageOfOneUse());
    if (!parsed || !parsed->is_array()) co_return List();
    co_return std::move(parsed->get_array());
  }(stats());
}

}  // namespace kestrova
