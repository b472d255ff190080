#pragma once

#include <memory>
#include <utility>

namespace kestrova {

/// A move-only `void()` callable: what queues and timers run. Unlike `std::function` it can carry
/// promises, coroutine handlers and other things that cannot be copied.
class Work {
public:
  Work() = default;
  template <class F>
  requires(!std::is_same_v<std::decay_t<F>, Work>) Work(F&& callable)  // NOLINT: a lambda is work
      : _body(std::make_unique<Model<std::decay_t<F>>>(std::forward<F>(callable))) {}

  explicit operator bool() const { return _body != nullptr; }
  void operator()() { _body->run(); }

private:
  struct Concept {
    virtual ~Concept() = default;
    virtual void run() = 0;
  };
  template <class F>
  struct Model final : Concept {
    explicit Model(F&& f) : callable(std::move(f)) {}
    explicit Model(const F& f) : callable(f) {}
    void run() override { callable(); }
    F callable;
  };
  std::unique_ptr<Concept> _body;
};

}  // namespace kestrova
