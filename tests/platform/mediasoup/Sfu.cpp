#include "Sfu.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <future>
#include <stdexcept>

extern char** environ;

namespace kestrova::test {

Sfu::Sfu() {
  std::array<int, 2> in{};
  std::array<int, 2> out{};
  if (pipe(in.data()) != 0 || pipe(out.data()) != 0) throw std::runtime_error("no pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  for (const int end : {in[0], in[1], out[0], out[1]})
    posix_spawn_file_actions_addclose(&actions, end);
  std::string node = NODE_PROGRAM;
  std::string script = TEST_FOLDER "/sfu.mjs";
  std::array<char*, 3> arguments{node.data(), script.data(), nullptr};
  const int failed =
      posix_spawn(&_process, node.c_str(), &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  if (failed != 0) throw std::runtime_error("node does not start");
  _input = in[1];
  _output = out[0];
  _reader = std::thread([this] { read(); });
}

Sfu::~Sfu() {
  ::close(_input);
  waitpid(_process, nullptr, 0);
  _reader.join();
  ::close(_output);
}

void Sfu::read() {
  std::string pending;
  std::array<char, 65536> chunk;
  for (ssize_t got; (got = ::read(_output, chunk.data(), chunk.size())) > 0;) {
    pending.append(chunk.data(), static_cast<std::size_t>(got));
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
      const auto message = parseDictionary(pending.substr(0, end));
      pending.erase(0, end + 1);
      Answer answer;
      {
        std::scoped_lock held(_lock);
        const auto found = _awaited.find(integer(message, "id", -1));
        if (found == _awaited.end()) continue;
        answer = std::move(found->second);
        _awaited.erase(found);
      }
      const auto* data = dictionary(message, "data");
      if (!data) std::fprintf(stderr, "sfu: %s\n", text(message, "error", "no data").c_str());
      answer(data ? std::optional(*data) : std::nullopt);
    }
  }
  std::map<std::int64_t, Answer> lost;
  {
    std::scoped_lock held(_lock);
    lost.swap(_awaited);
  }
  for (const auto& [id, answer] : lost) answer(std::nullopt);
}

void Sfu::request(const std::string& method, Dictionary data, Answer answer) {
  std::scoped_lock held(_lock);
  const auto id = ++_next;
  Dictionary message{{"id", id}, {"method", method}, {"data", std::move(data)}};
  const auto line = boost::json::serialize(message) + "\n";
  _awaited[id] = std::move(answer);
  if (::write(_input, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
    throw std::runtime_error("the server does not listen");
}

Dictionary Sfu::call(const std::string& method, Dictionary data) {
  auto promise = std::make_shared<std::promise<std::optional<Dictionary>>>();
  auto result = promise->get_future();
  request(method, std::move(data),
          [promise](auto answer) { promise->set_value(std::move(answer)); });
  if (result.wait_for(std::chrono::seconds(20)) != std::future_status::ready)
    throw std::runtime_error(method + ": the server does not answer");
  auto answer = result.get();
  if (!answer) throw std::runtime_error(method + ": refused");
  return std::move(*answer);
}

}  // namespace kestrova::test
