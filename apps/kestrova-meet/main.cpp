#include <kestrova/platform/Queue.h>
#include <kestrova/session/Kestrova.h>

#include <fcntl.h>
#include <unistd.h>

#include "AudioWatch.h"
#include "Encryption.h"
#include "ExitCode.h"
#include "Options.h"
#include "Report.h"
#include "Session.h"
#include "Text.h"
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace kestrova::meet {
namespace {

std::unique_ptr<Report> makeReport(const Options& options) {
  if (options.json) return makeJsonReport();
  if (options.chat) return makeChatReport();
  return isatty(STDOUT_FILENO) ? makeScreenReport(options) : makeLineReport();
}

int complain(const std::string& problem, int code) {
  std::fprintf(stderr, "kestrova-meet: %s\n", printable(problem).c_str());
  return code;
}

int run(const Options& options) {
  // Never destroyed: background work of the library may still hand something to it at the end.
  static auto& loop = *new boost::asio::io_context(1);
  MainQueue::adopt(loop.get_executor());

  const auto report = makeReport(options);
  Session session(loop, options, *report);
  Summary summary;
  try {
    summary = session.run();
  } catch (const std::system_error& error) {
    return complain(error.what(), exitUsage);
  }
  report->finished(summary);
  if (summary.exitCode != exitGood) complain(summary.problem, summary.exitCode);
  return summary.exitCode;
}

int main(int argc, char** argv) {
  // A standard input that is closed is an empty one: nothing else shall get its number.
  if (fcntl(STDIN_FILENO, F_GETFD) < 0) ::open("/dev/null", O_RDONLY);
  Options options;
  try {
    options = parseOptions({argv + 1, argv + argc}, std::getenv("KESTROVA_TOKEN"));
    if (!options.help && !options.version) beginEncryption(options);
  } catch (const UsageError& error) {
    return complain(std::string(error.what()) + "; see kestrova-meet --help", exitUsage);
  }
  if (options.help) {
    std::fputs(usageText().c_str(), stdout);
    return exitGood;
  }
  if (options.version) {
    std::puts("kestrova-meet " KESTROVA_VERSION);
    return exitGood;
  }
  if (options.listDevices) {
    Kestrova::setLogLevel(LogLevel::none);
    std::puts(listDevices(options.json).c_str());
    return exitGood;
  }
  return run(options);
}

}  // namespace
}  // namespace kestrova::meet

int main(int argc, char** argv) {
  return kestrova::meet::main(argc, argv);
}
