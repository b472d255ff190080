#pragma once

#include <kestrova/platform/Values.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace kestrova::test {

/// A media server in a process of its own (sfu.mjs), ended with this object.
class Sfu {
public:
  Sfu();
  ~Sfu();
  using Answer = std::function<void(std::optional<Dictionary> data)>;
  /// `answer` comes on a thread of this object; with nothing when the server refuses.
  void request(const std::string& method, Dictionary data, Answer answer);
  /// Waits for the answer; \throws std::runtime_error when the server refuses or is gone.
  Dictionary call(const std::string& method, Dictionary data = {});

private:
  void read();

  int _process = -1;
  int _input = -1;
  int _output = -1;
  std::mutex _lock;
  std::int64_t _next = 0;                   // under _lock
  std::map<std::int64_t, Answer> _awaited;  // under _lock
  std::thread _reader;
};

}  // namespace kestrova::test
