#include <sys/ioctl.h>
#include <unistd.h>

#include "Report.h"
#include "Text.h"
#include <algorithm>
#include <array>
#include <cstdio>

namespace kestrova::meet {
namespace {

/// How picture and sound fare is not what one talks for.
constexpr std::array<std::string_view, 6> untold = {"streamEnabled", "streamDisabled",
                                                    "firstPicture",  "firstShare",
                                                    "firstSound",    "characterState"};

std::size_t terminalWidth() {
  winsize size{};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

/// What is said, a line each, and below them, on a terminal, the line that is being typed.
class ChatReport final : public Report {
public:
  void happened(std::string_view event, const Dictionary&, const std::string& line) override {
    if (line.empty() || std::find(untold.begin(), untold.end(), event) != untold.end()) return;
    const bool failed = event == "error" || event == "chatError";
    put((failed ? "! " : "") + printable(line) + "\n" + prompt());
  }

  void tick(const Sample&) override {}

  void typed(std::string_view text) override {
    _prompts = true;
    _typed = text;
    put(prompt());
  }

  void finished(const Summary& summary) override {
    _prompts = false;
    put(summary.text());
  }

private:
  /// Its end, where it doesn't fit.
  std::string prompt() const {
    if (!_prompts) return {};
    return "> " + fittedEnd(printable(_typed), std::max<std::size_t>(terminalWidth(), 8) - 4);
  }

  void put(const std::string& text) const {
    const auto out = (_onTerminal ? "\r\x1b[K" : "") + text;
    std::fwrite(out.data(), 1, out.size(), stdout);
    std::fflush(stdout);
  }

  const bool _onTerminal = isatty(STDOUT_FILENO) != 0;
  bool _prompts = false;
  std::string _typed;
};

}  // namespace

std::unique_ptr<Report> makeChatReport() {
  return std::make_unique<ChatReport>();
}

}  // namespace kestrova::meet
