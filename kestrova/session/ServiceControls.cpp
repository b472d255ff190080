#include <kestrova/model/Secrets.h>
#include <kestrova/session/ServiceControls.h>
#include <kestrova/tracing/Trace.h>

#include <boost/algorithm/string/join.hpp>

#include <utility>

namespace kestrova {
namespace {

using Operation = ServiceOperation;

constexpr const char* noTranscription = "Transcription configuration not specified";

void addIfGiven(Dictionary& data, const char* key, const std::optional<std::string>& text) {
  if (text) data[key] = *text;
}

template <class Record>
void addIfGiven(Dictionary& data, const char* key, const std::optional<Record>& record) {
  if (record) data[key] = record->toJson();
}

template <class Record>
std::string described(const std::optional<Record>& record, const char* otherwise) {
  return record ? record->toJsonString() : otherwise;
}

/// As it may be traced: the address of a web hook may hold credentials.
std::string described(std::optional<TranscriptionConfig> config) {
  if (config) config->webHookUrl = addressWithoutSecrets(config->webHookUrl);
  return described(config, noTranscription);
}

/// Never the stream keys.
std::string described(const std::vector<LivestreamOutput>& outputs) {
  std::string text;
  for (const auto& output : outputs) {
    const auto url = addressWithoutSecrets(textWithout({output.streamKey}, output.url));
    text += "{ URL: " + url + " }, ";
  }
  return text.empty() ? "Outputs not specified" : text;
}

std::string described(const std::optional<std::vector<std::string>>& kinds) {
  return kinds ? "[" + boost::algorithm::join(*kinds, ", ") + "]" : "Kinds not specified";
}

/// What a refusal must not quote: the address, if there is more to it than may be traced.
std::vector<std::string> secretsOf(const std::string& url) {
  if (addressWithoutSecrets(url) == url) return {};
  return {url};
}

}  // namespace

bool ServiceControls::allows(ServiceOperation operation) const {
  const auto validator = _validator.lock();
  return validator && validator->allows(serviceRow(operation).method);
}

void ServiceControls::send(ServiceOperation operation, Dictionary data,
                           ServiceRequests::Extras extras) const {
  _context->roomClient()->serviceRequests()->send(operation, std::move(data), std::move(extras));
}

void ServiceControls::ask(ServiceOperation operation) const {
  if (allows(operation)) send(operation, {});
}

// ---- Recording, streaming, transcription, whiteboard -------------------------------------------

void ServiceControls::startRecording(const RecordingOptions& options) const {
  if (!allows(Operation::startRecording)) return;
  if (_context->e2eeEnabled()) return traceDebug("E2EE enabled: Recording not supported.");
  Dictionary data;
  addIfGiven(data, "webhookUrl", options.webhookUrl);
  addIfGiven(data, "awsDirPath", options.awsDirPath);
  addIfGiven(data, "config", options.config);
  addIfGiven(data, "transcription", options.transcription);
  send(Operation::startRecording, std::move(data),
       {.attributes =
            {{"webhookUrl", options.webhookUrl ? addressWithoutSecrets(*options.webhookUrl)
                                               : "webhookUrl Not Specify"},
             {"awsDirPath", options.awsDirPath.value_or("AWS directory path not specified")},
             {"config", described(options.config, "Recording configuration not specified")},
             {"transcription", described(options.transcription, noTranscription)}},
        .secrets = secretsOf(options.webhookUrl.value_or(""))});
}

void ServiceControls::startLivestream(const std::vector<LivestreamOutput>& outputs,
                                      const std::optional<LivestreamConfig>& config) const {
  if (!allows(Operation::startLivestream)) return;
  List list;
  std::vector<std::string> secrets;
  for (const auto& output : outputs) {
    list.push_back(output.toJson());
    secrets.push_back(output.streamKey);
    for (auto& secret : secretsOf(output.url)) secrets.push_back(std::move(secret));
  }
  Dictionary data{{"outputs", std::move(list)}};
  addIfGiven(data, "config", config);
  send(Operation::startLivestream, std::move(data),
       {.attributes = {{"outputs", described(outputs)},
                       {"config", described(config, "Livestream config not specified")}},
        .secrets = std::move(secrets)});
}

void ServiceControls::startHLS(const std::optional<HLSConfig>& config,
                               const std::optional<PostTranscriptionConfig>& transcription) const {
  if (!allows(Operation::startHLS)) return;
  Dictionary data;
  addIfGiven(data, "config", config);
  addIfGiven(data, "transcription", transcription);
  send(Operation::startHLS, std::move(data),
       {.attributes = {{"config", described(config, "HLS configuration not specified")},
                       {"transcription", described(transcription, noTranscription)}}});
}

void ServiceControls::startTranscription(const std::optional<TranscriptionConfig>& config) const {
  if (!allows(Operation::startTranscription)) return;
  if (_context->e2eeEnabled()) return traceDebug("E2EE enabled: Transcription not supported!");
  Dictionary data;
  addIfGiven(data, "config", config);
  send(Operation::startTranscription, std::move(data),
       {.attributes = {{"config", described(config)}},
        .secrets = secretsOf(config ? config->webHookUrl : "")});
}

void ServiceControls::startWhiteboard() const {
  if (allows(Operation::startWhiteboard)) send(Operation::startWhiteboard, {{"version", "v2"}});
}

// ---- All streams, another meeting --------------------------------------------------------------

void ServiceControls::pauseAllStreams(const std::optional<std::string>& kind) const {
  askForAllStreams(Operation::pauseAllStreams, kind, &ServiceRequests::pauseAllStreams);
}
void ServiceControls::resumeAllStreams(const std::optional<std::string>& kind) const {
  askForAllStreams(Operation::resumeAllStreams, kind, &ServiceRequests::resumeAllStreams);
}

void ServiceControls::askForAllStreams(ServiceOperation operation,
                                       const std::optional<std::string>& kind,
                                       Task<void> (ServiceRequests::*request)(std::string)) const {
  if (!allows(operation)) return;
  const auto all = kind.value_or("all");
  trace([&] { return serviceRow(operation).span + all + " Stream Requested."; });
  const auto client = _context->roomClient();
  client->inOrder(((*client->serviceRequests()).*request)(all));
}

void ServiceControls::switchTo(const std::string& meetingId,
                               const std::optional<std::string>& token,
                               std::optional<Mode> mode) const {
  if (!allows(Operation::switchTo)) return;
  const auto client = _context->roomClient();
  client->inOrder(client->switchTo(token, meetingId, mode.value_or(_context->sending->mode())));
}

// ---- Media relay -------------------------------------------------------------------------------

void ServiceControls::requestMediaRelay(
    const std::string& meetingId, const std::optional<std::string>& token,
    const std::optional<std::vector<std::string>>& kinds) const {
  if (!allows(Operation::requestMediaRelay)) return;
  Dictionary data{{"meetingId", meetingId}};
  addIfGiven(data, "token", token);
  if (kinds) data["kinds"] = List(kinds->begin(), kinds->end());
  send(Operation::requestMediaRelay, std::move(data),
       {.attributes = {{"meetingId", meetingId}, {"kinds", described(kinds)}},
        .secrets = {token.value_or("")}});
}

void ServiceControls::handleRelayRequestResponse(const std::string& decision,
                                                 const std::string& peerId,
                                                 const std::string& meetingId) const {
  if (!allows(Operation::handleRelayRequestResponse)) return;
  send(Operation::handleRelayRequestResponse,
       {{"peerId", peerId}, {"meetingId", meetingId}, {"decision", decision}},
       {.attributes = {{"peerId", peerId}, {"meetingId", meetingId}, {"decision", decision}}});
}

void ServiceControls::stopMediaRelay(const std::string& meetingId) const {
  if (!allows(Operation::stopMediaRelay)) return;
  send(Operation::stopMediaRelay, {{"meetingId", meetingId}},
       {.attributes = {{"meetingId", meetingId}}});
}

void ServiceControls::switchRelayMedia(ServiceOperation operation, const std::string& meetingId,
                                       const std::string& kind) const {
  if (!allows(operation)) return;
  send(operation, {{"meetingId", meetingId}, {"kind", kind}},
       {.attributes = {{"meetingId", meetingId}, {"kind", kind}}});
}

}  // namespace kestrova
