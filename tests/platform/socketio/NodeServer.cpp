#include "NodeServer.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace kestrova::test {

NodeServer::NodeServer(const std::string& options) {
  int toChild[2];
  int fromChild[2];
  if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0)
    throw std::runtime_error("no pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);
  std::string json = "{" + options + "}";
  std::string node = KESTROVA_NODE;
  std::string script = KESTROVA_NODE_SERVER;
  char* arguments[] = {node.data(), script.data(), json.data(), nullptr};
  const int failure = posix_spawn(&_process, node.c_str(), &actions, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(toChild[0]);
  ::close(fromChild[1]);
  _input = toChild[1];
  std::string line;
  char c = 0;
  while (failure == 0 && ::read(fromChild[0], &c, 1) == 1 && c != '\n') line += c;
  ::close(fromChild[0]);
  _port = std::atoi(line.c_str());
  if (_port == 0) {
    kill();
    throw std::runtime_error("the Node server did not start");
  }
}

NodeServer::~NodeServer() {
  kill();
}

void NodeServer::kill() {
  if (_process > 0) {
    ::kill(_process, SIGKILL);
    ::waitpid(_process, nullptr, 0);
  }
  _process = -1;
  if (_input >= 0) ::close(_input);
  _input = -1;
}

void NodeServer::stop() {
  ::kill(_process, SIGSTOP);
}
void NodeServer::resume() {
  ::kill(_process, SIGCONT);
}

namespace {

void run(const std::string& command) {
  if (std::system((command + " 2>/dev/null").c_str()) != 0)
    throw std::runtime_error("failed: " + command);
}

}  // namespace

Authority::Authority() {
  std::string pattern = (std::filesystem::temp_directory_path() / "authority-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("no temporary folder");
  _folder = pattern;
  run("cd " + pattern +
      " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
      " -keyout ca.key -out ca.pem -subj '/CN=Test authority'");
}

Authority::~Authority() {
  std::error_code ignored;
  std::filesystem::remove_all(_folder, ignored);
}

std::string Authority::certify(const std::string& names, int days) {
  const std::string name = "server" + std::to_string(++_count);
  std::ofstream(_folder / (name + ".ext")) << "subjectAltName=" << names << "\n";
  run("cd " + _folder.string() +
      " && openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + name +
      ".key -out " + name + ".csr -subj '/CN=test' && openssl x509 -req -in " + name +
      ".csr -CA ca.pem -CAkey ca.key -CAcreateserial -days " + std::to_string(days) + " -extfile " +
      name + ".ext -out " + name + ".pem");
  const auto path = (_folder / name).string();
  return R"("key":")" + path + R"(.key","cert":")" + path + R"(.pem")";
}

}  // namespace kestrova::test
