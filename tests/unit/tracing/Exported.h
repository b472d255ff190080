#pragma once

#include <kestrova/platform/URLSession.h>
#include <kestrova/platform/Values.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace kestrova {

/// What was posted to a telemetry service, read with the schema of OpenTelemetry's own libraries,
/// as the JSON that OTLP has for it.
struct Exported {
  using Attributes = std::map<std::string, std::string>;

  Dictionary resource;
  Dictionary scope;
  std::map<std::string, Dictionary> spans;      ///< by their names, of which the last stays
  std::map<std::string, std::string> statuses;  ///< of all that have the name

  static Exported of(const std::vector<URLRequest>& requests);
  static Attributes attributesOf(const Dictionary& holder);
  /// How the spans of that name ended, in the order of their ends: "OK" or "ERROR: why" each.
  std::string status(const std::string& span) const;
  std::string id(const std::string& span) const { return text(spans.at(span), "spanId", ""); }
  /// Empty for a root.
  std::string parent(const std::string& span) const {
    return text(spans.at(span), "parentSpanId", "");
  }

private:
  void add(const Dictionary& span);
};

/// How many pipelines' threads there are in this process.
std::size_t pipelineThreads();

}  // namespace kestrova
