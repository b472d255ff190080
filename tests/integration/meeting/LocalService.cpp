#include "LocalService.h"

#include <kestrova/platform/Platform.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <utility>

namespace kestrova::test {
namespace {

const std::string serverFolder = KESTROVA_SERVER_FOLDER;

std::string firstLine(int descriptor) {
  std::string line;
  for (char c = 0; ::read(descriptor, &c, 1) == 1 && c != '\n';) line += c;
  return line;
}

std::string trimmedFile(const std::string& path) {
  std::ifstream file(path);
  std::string content((std::istreambuf_iterator<char>(file)), {});
  while (!content.empty() && std::isspace(static_cast<unsigned char>(content.back())))
    content.pop_back();
  return content;
}

}  // namespace

LocalService::LocalService(std::vector<std::string> options) : _options(std::move(options)) {
  std::string folder = (std::filesystem::temp_directory_path() / "kestrova-XXXXXX").string();
  if (!::mkdtemp(folder.data())) throw std::runtime_error("no temporary folder");
  _state = folder;
  start("0");
}

void LocalService::start(const std::string& port) {
  std::vector<std::string> words{serverFolder + "/bin/service",
                                 "--port",
                                 port,
                                 "--state",
                                 _state.string(),
                                 "--with-parent",
                                 "--log-level",
                                 "error"};
  words.insert(words.end(), _options.begin(), _options.end());
  std::vector<char*> arguments;
  for (auto& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);

  int input[2];
  int output[2];
  if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0)
    throw std::runtime_error("no pipe");
  _process = ::fork();
  if (_process == 0) {
    ::dup2(input[0], STDIN_FILENO);
    ::dup2(output[1], STDOUT_FILENO);
    ::execv(arguments.front(), arguments.data());
    ::_exit(127);
  }
  ::close(input[0]);
  ::close(output[1]);
  _input = input[1];
  const auto ready = parseDictionary(firstLine(output[0]));
  ::close(output[0]);
  _address = text(ready, "service", "");
  if (_address.empty()) throw std::runtime_error("the local meeting service did not start");
  _controlUrl = text(ready, "control", "");
  _controlKey = trimmedFile(text(ready, "controlKeyFile", ""));
  ::setenv("SSL_CERT_FILE", text(ready, "ca", "").c_str(), 1);
}

void LocalService::kill() {
  ::kill(_process, SIGKILL);
  ::waitpid(_process, nullptr, 0);
  ::close(_input);
  _process = -1;
}

void LocalService::startAgain() {
  start(_address.substr(_address.rfind(':') + 1));
}

LocalService::~LocalService() {
  if (_process > 0) {
    ::close(_input);  // it ends with its parent's end of this pipe
    ::kill(_process, SIGTERM);
    ::waitpid(_process, nullptr, 0);
  }
  std::error_code ignored;
  std::filesystem::remove_all(_state, ignored);
}

std::string LocalService::token(const std::string& options) const {
  const auto command = serverFolder + "/bin/token --state " + _state.string() +
                       (options.empty() ? "" : " ") + options;
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
  return firstLine(::fileno(pipe.get()));
}

Dictionary LocalService::control(const std::string& action, const Dictionary& body) const {
  const auto platform = Platform::current();
  URLRequest request{
      .method = "POST",
      .url = _controlUrl + "/" + action,
      .headers = {{"Authorization", _controlKey}, {"Content-Type", "application/json"}},
      .body = boost::json::serialize(body)};
  auto answer =
      boost::asio::co_spawn(platform->background, platform->urlSession->data(std::move(request)),
                            boost::asio::use_future);
  return parseDictionary(answer.get().body);
}

}  // namespace kestrova::test
