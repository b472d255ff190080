#include <kestrova/platform/Runtime.h>
#include <kestrova/platform/linux/http/CurlSession.h>
#include <kestrova/tracing/KestrovaTelemetry.h>

#include <openssl/crypto.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// usage: kestrova_telemetry_process <endpoint>...
//
// Exports to each of the endpoints in turn, as many meetings one after the other would, and ends by
// returning from main while the last spans are still here.

using namespace kestrova;

namespace {

void exportSpans(const std::shared_ptr<KestrovaTelemetry>& telemetry) {
  for (int i = 0; i < 2000; ++i)
    telemetry->traceAutoComplete("event " + std::to_string(i), {}, nullptr, TelemetryStatus::ok());
  telemetry->updateRootSpanAttributes("session");
}

}  // namespace

int main(int count, char** arguments) {
  // As the Linux platform has it.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  Platform::install({.background = Runtime::background(), .urlSession = makeURLSession()});
  std::vector<std::shared_ptr<KestrovaTelemetry>> meetings;
  for (int i = 1; i < count; ++i) {
    meetings.push_back(
        KestrovaTelemetry::make({.roomId = "r" + std::to_string(i),
                                 .observabilityJwt = "opaque token",
                                 .traces = {{"enabled", true}, {"pbEndPoint", arguments[i]}}}));
    exportSpans(meetings.back());
  }
  std::puts("leaves main");
  std::fflush(stdout);
  // One meeting is left, one is not: neither makes a difference.
  if (!meetings.empty()) meetings.pop_back();
  static auto& kept = *new auto(std::move(meetings));
  return kept.size() < 10 ? EXIT_SUCCESS : EXIT_FAILURE;
}
