#pragma once

#include <kestrova/platform/Queue.h>
#include <kestrova/platform/URLSession.h>
#include <kestrova/tracing/SpanScope.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kestrova {

/// Small files, stored with the service and read back over HTTPS, as base64. Each transfer is
/// independent and may run beside others; the whole file lies in memory, and nothing is tried
/// twice. Any thread.
class FileUpload {
public:
  /// Gets nothing when it failed; the trace says why. For what fails before anything is sent it is
  /// called on the caller's thread, otherwise on a background queue of the transfers.
  using Completion = std::function<void(const std::optional<std::string>&)>;

  /// \param baseUrl host and port of the service, with no scheme
  FileUpload(std::string baseUrl, std::string meetingId);

  /// The same service, for another meeting.
  std::shared_ptr<const FileUpload> forMeeting(const std::string& meetingId) const;

  /// \param token the credential of this exchange; sent as it stands
  /// \param completion gets the URL of the stored file
  void uploadBase64File(std::string base64Data, const std::string& token,
                        const std::string& fileName, Completion completion) const;
  /// \param completion gets the file, encoded without line breaks
  void fetchBase64File(const std::string& url, const std::string& token,
                       Completion completion) const;

private:
  struct Transfer;
  void send(Transfer transfer) const;
  static Task<void> run(std::shared_ptr<URLSession> session, Transfer transfer);

  const std::string _baseUrl;
  const std::string _meetingId;
  const std::shared_ptr<URLSession> _session;
  const std::shared_ptr<SerialQueue> _queue;
};

}  // namespace kestrova
