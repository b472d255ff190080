#include <kestrova/model/Secrets.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Values.h>
#include <kestrova/realtime/Base64.h>
#include <kestrova/realtime/FileUpload.h>
#include <kestrova/tracing/Trace.h>

#include <boost/url/parse.hpp>

#include <utility>

namespace kestrova {
namespace {

/// What an answer comes to: the result, or why there is none.
struct Outcome {
  std::optional<std::string> result;
  const char* message;
  std::string error;
};

/// A transfer takes what time it takes, as long as something moves.
constexpr std::chrono::seconds stillFor{60};

constexpr const char* uploadFailed = "Error while uploading Base64 File";
constexpr const char* fetchFailed = "Error while fetching Base64 file!";

Outcome judgeUpload(const std::string& body) {
  if (body.empty()) return {std::nullopt, uploadFailed, "No data found in response body!"};
  const auto json = parseJson(body);
  if (!json) return {std::nullopt, "Error parsing JSON response", "The data is not valid JSON"};
  auto url = text(asDictionary(*json), "url");
  if (!url) return {std::nullopt, uploadFailed, "Invalid JSON response"};
  return {std::move(url), "Base64 file uploaded", ""};
}

Outcome judgeFetch(const std::string& body) {
  if (body.empty()) return {std::nullopt, fetchFailed, "No data found!"};
  return {base64Encoded(body), "Base64 File fetched successfully!", ""};
}

}  // namespace

struct FileUpload::Transfer {
  URLRequest request;
  SpanScope span;
  const char* failed;
  Outcome (*judge)(const std::string& body);
  Completion completion;
};

FileUpload::FileUpload(std::string baseUrl, std::string meetingId)
    : _baseUrl(std::move(baseUrl)),
      _meetingId(std::move(meetingId)),
      _session(Platform::current()->urlSession),
      _queue(SerialQueue::make("com.kestrova.fileQueue")) {}

std::shared_ptr<const FileUpload> FileUpload::forMeeting(const std::string& meetingId) const {
  return std::make_shared<const FileUpload>(_baseUrl, meetingId);
}

void FileUpload::uploadBase64File(std::string base64Data, const std::string& token,
                                  const std::string& fileName, Completion completion) const {
  auto span = openSpan("Uploading Base64 File",
                       {{"fileName", fileName.empty() ? "Filename not provided" : fileName}});
  if (base64Data.empty() || token.empty() || fileName.empty()) {
    trace("Please provide base64Data, token and fileName!");
    return completion(std::nullopt);
  }
  const auto url = "https://" + _baseUrl + "/base64-upload?roomId=" + _meetingId;
  if (!boost::urls::parse_uri(url)) {
    completion(std::nullopt);
    return trace("Invalid URL provided!");
  }
  auto body = jsonText(Dictionary{{"fileName", fileName}, {"base64Data", std::move(base64Data)}});
  if (!body) {
    completion(std::nullopt);
    return trace("Error while building request body!");
  }
  send({{.method = "POST",
         .url = url,
         .headers = {{"Content-Type", "application/json"}, {"Authorization", token}},
         .body = std::move(*body),
         .stallTimeout = stillFor},
        std::move(span),
        uploadFailed,
        judgeUpload,
        std::move(completion)});
}

void FileUpload::fetchBase64File(const std::string& url, const std::string& token,
                                 Completion completion) const {
  auto span = openSpan("Fetching Base64 File",
                       {{"fileURL", url.empty() ? "FileURL not provided" : withoutSecrets(url)}});
  if (token.empty() || !boost::urls::parse_uri(url)) {
    trace("Please provide a valid URL and token");
    return completion(std::nullopt);
  }
  send({{.method = "GET",
         .url = url,
         .headers = {{"Authorization", token}},
         .body = {},
         .stallTimeout = stillFor},
        std::move(span),
        fetchFailed,
        judgeFetch,
        std::move(completion)});
}

void FileUpload::send(Transfer transfer) const {
  spawnOn(*_queue, run(_session, std::move(transfer)));
}

Task<void> FileUpload::run(std::shared_ptr<URLSession> session, Transfer transfer) {
  Outcome outcome{std::nullopt, transfer.failed, ""};
  try {
    auto answering = session->data(std::move(transfer.request));
    const auto response = co_await std::move(answering);
    outcome = transfer.judge(response.body);  // whatever its status
  } catch (const std::exception& error) {
    outcome.error = error.what();
  }
  if (outcome.result)
    SdkTracer::shared().endSpan(transfer.span, {.message = outcome.message});
  else
    SdkTracer::shared().endSpan(
        transfer.span,
        {.attributes = {{"error", outcome.error}}, .success = false, .message = outcome.message});
  transfer.completion(outcome.result);
}

}  // namespace kestrova
