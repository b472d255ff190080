#include "Options.h"

#include <kestrova/platform/Values.h>

#include "Picture.h"
#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>

namespace kestrova::meet {
namespace {

constexpr int mostExpected = 1000;
constexpr std::chrono::hours longestDuration{24 * 365};
// Above it a tone can't be carried by every sampling rate; below it nobody hears it.
constexpr double lowestTone = 20, highestTone = 8000;

template <class Number>
std::optional<Number> number(std::string_view text) {
  Number value{};
  const auto* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end || text.empty()) return std::nullopt;
  return value;
}

std::chrono::milliseconds duration(std::string_view text) {
  struct Unit {
    std::string_view name;
    double milliseconds;
  };
  constexpr Unit units[] = {{"ms", 1}, {"s", 1000}, {"m", 60'000}, {"h", 3'600'000}, {"", 1000}};
  for (const auto& unit : units) {
    if (!text.ends_with(unit.name)) continue;
    const auto value = number<double>(text.substr(0, text.size() - unit.name.size()));
    const double total = value.value_or(-1) * unit.milliseconds;
    const double longest = std::chrono::duration<double, std::milli>(longestDuration).count();
    if (!(total > 0) || total > longest) break;
    return std::chrono::milliseconds(std::llround(std::ceil(total)));
  }
  throw UsageError("--duration takes a time such as 10s, 500ms or 2m, not \"" + std::string(text) +
                   "\"");
}

/// One of the words, or a file, which must be there, or a device's place: whether that can be
/// opened shows when it is.
std::string device(std::string_view flag, const std::string& value,
                   std::initializer_list<std::string_view> words) {
  if (std::find(words.begin(), words.end(), value) != words.end()) return value;
  if (value.starts_with("/dev/video")) return value;
  std::error_code ignored;
  if (std::filesystem::exists(value, ignored) && !std::filesystem::is_directory(value, ignored))
    return value;
  std::string list;
  for (const auto word : words) list += std::string(word) + ", ";
  throw UsageError(std::string(flag) + " takes " + list + "or a file; there is no \"" + value +
                   "\"");
}

/// Also a device by its name, which may be anything but a file's that isn't there.
std::string microphone(const std::string& value) {
  const bool isFile = value.empty() || value.ends_with(".wav") || value.find('/') != value.npos;
  return isFile ? device("--mic", value, {"tone", "none", "default"}) : value;
}

double tone(const std::string& value) {
  const auto hertz = number<double>(value);
  if (!hertz || !(*hertz >= lowestTone && *hertz <= highestTone))
    throw UsageError("--tone-hz takes a frequency from 20 to 8000");
  return *hertz;
}

int expectation(const std::string& value) {
  const auto count = number<int>(value);
  if (!count || *count < 0 || *count > mostExpected)
    throw UsageError("--expect takes a number of participants from 0 to 1000");
  return *count;
}

Mode mode(const std::string& value) {
  const auto found = modeFromText(value);
  if (!found)
    throw UsageError(
        "--mode is one of SEND_AND_RECV, RECV_ONLY, SIGNALLING_ONLY, CONFERENCE, "
        "VIEWER, not \"" +
        value + "\"");
  return *found;
}

Service service(const std::string& value) {
  constexpr std::pair<std::string_view, Service> services[] = {
      {"recording", Service::recording},
      {"hls", Service::hls},
      {"transcription", Service::transcription},
      {"whiteboard", Service::whiteboard}};
  for (const auto& [name, known] : services)
    if (name == value) return known;
  throw UsageError("--start takes recording, hls, transcription or whiteboard, not \"" + value +
                   "\"");
}

std::vector<std::string> words(const std::string& value) {
  std::istringstream in(value);
  return {std::istream_iterator<std::string>(in), {}};
}

/// Nothing given is any free port.
std::uint16_t port(const std::string& value) {
  if (value.empty()) return 0;
  const auto found = number<std::uint16_t>(value);
  if (!found) throw UsageError("--inspect takes a port from 0 to 65535, not \"" + value + "\"");
  return *found;
}

std::string background(const std::string& value) {
  try {
    return backgroundSource(value);
  } catch (const std::runtime_error& error) {
    throw UsageError(std::string("--background takes a file, a URL or blur; ") + error.what());
  }
}

struct Row {
  std::string_view flag;
  std::string_view value;  ///< empty for a switch; in brackets where it may be left out
  std::string_view help;
  void (*apply)(Options&, const std::string&);
};

constexpr Row rows[] = {
    {"--service", "HOST:PORT", "the meeting service",
     [](Options& o, const std::string& v) { o.service = v; }},
    {"--meeting", "ID", "the meeting to join",
     [](Options& o, const std::string& v) { o.meeting = v; }},
    {"--name", "NAME", "what the others see (Guest)",
     [](Options& o, const std::string& v) { o.name = v; }},
    {"--participant", "ID", "participant id (made up)",
     [](Options& o, const std::string& v) { o.participant = v; }},
    {"--token", "TOKEN", "access token; others on this machine may see it in the process list",
     [](Options& o, const std::string& v) { o.token = v; }},
    {"--token-file", "FILE", "file with the access token; without either, KESTROVA_TOKEN",
     [](Options& o, const std::string& v) { o.tokenFile = v; }},
    {"--key", "TEXT", "encrypt the meeting with this key; can be seen like --token",
     [](Options& o, const std::string& v) { o.key = v; }},
    {"--key-file", "FILE", "file with that key; without either, KESTROVA_KEY",
     [](Options& o, const std::string& v) { o.keyFile = v; }},
    {"--mode", "MODE", "SEND_AND_RECV, RECV_ONLY or SIGNALLING_ONLY (SEND_AND_RECV)",
     [](Options& o, const std::string& v) { o.mode = mode(v); }},
    {"--camera", "KIND", "pattern, none, default, /dev/videoN, or a .y4m or .mjpeg file (pattern)",
     [](Options& o, const std::string& v) {
       o.capture.camera = device("--camera", v, {"pattern", "none", "default"});
     }},
    {"--background", "WHAT",
     "a picture behind us (FILE or URL, PNG or JPEG), or blur: the room out of focus",
     [](Options& o, const std::string& v) { o.background = background(v); }},
    {"--mic", "NAME", "tone, none, default, a .wav file or a microphone's name (tone)",
     [](Options& o, const std::string& v) { o.capture.microphone = microphone(v); }},
    {"--speaker", "NAME", "none, default or a sink of the sound server (none)",
     [](Options& o, const std::string& v) { o.capture.speaker = v; }},
    {"--list-devices", "", "the cameras and microphones of this machine, by their names",
     [](Options& o, const std::string&) { o.listDevices = true; }},
    {"--tone-hz", "HZ", "pitch of the tone (440)",
     [](Options& o, const std::string& v) { o.capture.toneHz = tone(v); }},
    {"--screen", "", "share the screen after the join",
     [](Options& o, const std::string&) { o.screen = true; }},
    {"--screen-with", "ARGS", "what kestrova-broadcast, which sends it, is started with",
     [](Options& o, const std::string& v) { o.screenShare.arguments = words(v); }},
    {"--screen-program", "PATH", "another program that sends it; empty waits for one",
     [](Options& o, const std::string& v) { o.screenShare.screenSharingExtension = v; }},
    {"--duration", "TIME", "leave this long after the join: 10s, 500ms, 2m",
     [](Options& o, const std::string& v) { o.duration = duration(v); }},
    {"--snapshot", "DIR", "write the last picture of each remote participant there, as PNG",
     [](Options& o, const std::string& v) { o.snapshot = v; }},
    {"--record", "DIR", "write each remote participant there, as NAME.y4m and NAME.wav",
     [](Options& o, const std::string& v) { o.record = v; }},
    {"--expect", "N", "fail unless picture and sound of N participants came",
     [](Options& o, const std::string& v) { o.expect = expectation(v); }},
    {"--start", "SERVICE",
     "start recording, hls, transcription or whiteboard after the join; may be repeated",
     [](Options& o, const std::string& v) { o.start.push_back(service(v)); }},
    {"--character", "ID", "let an AI character join, too, and leave again at the end",
     [](Options& o, const std::string& v) { o.character = v; }},
    {"--character-name", "NAME", "what the others see of it (the service's choice)",
     [](Options& o, const std::string& v) { o.characterName = v; }},
    {"--relay-to", "MEETING", "ask that meeting to show and play the people of this one",
     [](Options& o, const std::string& v) { o.relayTo = v; }},
    {"--relay-token", "TOKEN",
     "access token for it, where ours isn't good there; can be seen like --token",
     [](Options& o, const std::string& v) { o.relayToken = v; }},
    {"--accept-relays", "",
     "let other meetings that ask be shown here; takes the right to moderate",
     [](Options& o, const std::string&) { o.acceptRelays = true; }},
    {"--inspect", "[PORT]",
     "show the meeting on a page in a browser of this machine, and tell its address",
     [](Options& o, const std::string& v) { o.inspect = port(v); }},
    {"--chat", "",
     "send the lines of standard input to the topic CHAT, and show what is said there",
     [](Options& o, const std::string&) { o.chat = true; }},
    {"--json", "", "events and a closing summary on standard output, a JSON object a line",
     [](Options& o, const std::string&) { o.json = true; }},
    {"--verbose", "", "the library's own log on standard error",
     [](Options& o, const std::string&) { o.verbose = true; }},
    {"--help", "", "this text", [](Options& o, const std::string&) { o.help = true; }},
    {"--version", "", "the version", [](Options& o, const std::string&) { o.version = true; }},
};

std::string tokenFrom(const std::string& file) {
  std::ifstream in(file);
  std::string token;
  if (!in || !(in >> token)) throw UsageError("no token can be read from " + file);
  return token;
}

void require(const Options& options) {
  if (options.service.empty()) throw UsageError("--service HOST:PORT is missing");
  if (options.meeting.empty()) throw UsageError("--meeting ID is missing");
  if (options.token.empty())
    throw UsageError("no access token: set KESTROVA_TOKEN, or give --token-file or --token");
  for (const auto& token : {options.token, options.relayToken})
    if (!std::all_of(token.begin(), token.end(), [](char c) { return c > ' ' && c < 0x7F; }))
      throw UsageError("the access token holds characters that no token has");
  const std::pair<const char*, const std::string*> texts[] = {
      {"--service", &options.service},
      {"--meeting", &options.meeting},
      {"--participant", &options.participant},
      {"--name", &options.name},
      {"--relay-to", &options.relayTo},
      {"--character", &options.character},
      {"--character-name", &options.characterName}};
  for (const auto& [flag, text] : texts)
    if (!isUtf8(*text)) throw UsageError(std::string(flag) + " is not UTF-8");
  if (!options.characterName.empty() && options.character.empty())
    throw UsageError("--character-name needs --character ID");
  if (!options.relayToken.empty() && options.relayTo.empty())
    throw UsageError("--relay-token needs --relay-to MEETING");
  if (!options.record) return;
  std::error_code error;
  std::filesystem::create_directories(*options.record, error);
  if (error || !std::filesystem::is_directory(*options.record, error))
    throw UsageError("--record can't use " + options.record->string());
}

}  // namespace

Options parseOptions(const std::vector<std::string>& arguments, const char* environmentToken) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const auto& argument = arguments[i];
    const auto equals = argument.find('=');
    const auto flag = argument.substr(0, equals);
    const auto* row = std::find_if(std::begin(rows), std::end(rows),
                                   [&](const Row& known) { return known.flag == flag; });
    if (row == std::end(rows)) throw UsageError("unknown argument " + flag);
    const bool attached = equals != std::string::npos;
    if (row->value.empty()) {
      if (attached) throw UsageError(flag + " takes no value");
      row->apply(options, {});
    } else if (attached) {
      row->apply(options, argument.substr(equals + 1));
    } else if (row->value.starts_with('[')) {
      const bool given = i + 1 < arguments.size() && !arguments[i + 1].starts_with('-');
      row->apply(options, given ? arguments[++i] : std::string());
    } else {
      if (++i == arguments.size()) throw UsageError(flag + " needs " + std::string(row->value));
      row->apply(options, arguments[i]);
    }
  }
  if (options.help || options.version || options.listDevices) return options;
  if (options.token.empty() && !options.tokenFile.empty())
    options.token = tokenFrom(options.tokenFile);
  if (options.token.empty() && environmentToken) options.token = environmentToken;
  require(options);
  return options;
}

std::string usageText() {
  constexpr std::size_t column = 24;
  std::string text =
      "usage: kestrova-meet --service HOST:PORT --meeting ID [options]\n"
      "Joins a meeting and shows who is there and how picture and sound flow. Ctrl-C leaves.\n\n";
  for (const auto& row : rows) {
    auto left = "  " + std::string(row.flag) + " " + std::string(row.value);
    left.resize(std::max(column, left.size() + 1), ' ');
    text += left + std::string(row.help) + "\n";
  }
  text +=
      "\nOn a terminal, without --json and --chat: m microphone, n next microphone, v webcam,\n"
      "s screen, b background, i still picture of us into a file, q quality and p pin of who came\n"
      "last, l leave, ? help. Capitals start and stop services of the meeting: R recording,\n"
      "T transcription, H HLS, W whiteboard.\n"
      "\nWith --chat a line is a message, or one of /set KEY VALUE (no value clears), /get KEY,\n"
      "/watch KEY, /file PATH, and for an AI character /say ID TEXT or @ID TEXT, /interrupt ID;\n"
      "of an encrypted meeting /rekey reads --key-file again, /ratchet goes on to the next key;\n"
      "//text says /text. On a terminal Ctrl-D leaves. When the lines of a script end, the "
      "program\n"
      "leaves once all are sent and acknowledged, or after --duration.\n"
      "\nExit status: 0 good, 1 too little picture or sound, 2 bad arguments, 3 not joined,\n"
      "4 token refused, 5 ended by others, 6 a line of a script could not be done, 130 Ctrl-C, 143 "
      "SIGTERM.\n"
      "SSL_CERT_FILE names the authority of a service with a private certificate.\n";
  return text;
}

}  // namespace kestrova::meet
