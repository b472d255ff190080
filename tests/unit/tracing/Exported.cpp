#include "Exported.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>

namespace kestrova {
namespace {

Dictionary decoded(const std::string& body) {
  using namespace google::protobuf;
  const auto* type = DescriptorPool::generated_pool()->FindMessageTypeByName(
      "opentelemetry.proto.collector.trace.v1.ExportTraceServiceRequest");
  const std::unique_ptr<Message> message(
      MessageFactory::generated_factory()->GetPrototype(type)->New());
  EXPECT_TRUE(message->ParseFromString(body));
  std::string json;
  EXPECT_TRUE(util::MessageToJsonString(*message, &json).ok());
  return parseDictionary(json);
}

}  // namespace

Exported Exported::of(const std::vector<URLRequest>& requests) {
  Exported all;
  for (const auto& request : requests) {
    const auto body = decoded(request.body);
    for (const auto& resource : *list(body, "resourceSpans")) {
      all.resource = *dictionary(resource.get_object(), "resource");
      for (const auto& scope : *list(resource.get_object(), "scopeSpans")) {
        all.scope = *dictionary(scope.get_object(), "scope");
        for (const auto& span : *list(scope.get_object(), "spans")) all.add(span.get_object());
      }
    }
  }
  return all;
}

Exported::Attributes Exported::attributesOf(const Dictionary& holder) {
  Attributes all;
  if (const auto* attributes = list(holder, "attributes"))
    for (const auto& each : *attributes)
      all[text(each.get_object(), "key", "")] =
          text(*dictionary(each.get_object(), "value"), "stringValue", "");
  return all;
}

void Exported::add(const Dictionary& span) {
  const auto name = text(span, "name", "");
  const auto* status = dictionary(span, "status");
  const auto code = status ? text(*status, "code", "unset") : "unset";
  auto& line = statuses[name];
  if (!line.empty()) line += ", ";
  line += code == "STATUS_CODE_OK"      ? "OK"
          : code == "STATUS_CODE_ERROR" ? "ERROR: " + text(*status, "message", "")
                                        : code;
  spans[name] = span;
}

std::string Exported::status(const std::string& span) const {
  const auto found = statuses.find(span);
  return found == statuses.end() ? "never exported" : found->second;
}

std::size_t pipelineThreads() {
  std::size_t found = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::ifstream(task.path() / "comm") >> name;
    if (name == "BatchWorker") ++found;
  }
  return found;
}

}  // namespace kestrova
