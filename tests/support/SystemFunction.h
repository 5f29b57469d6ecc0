#pragma once

#include <dlfcn.h>

#include <atomic>
#include <functional>

// A function of the system that a test program defines itself, so that the shared libraries call
// it too. It goes on to the system's own unless a Replacement lives:
//
//   SystemFunction<int(int, int)> gListen{"listen"};
//   extern "C" int listen(int s, int backlog) { return gListen(s, backlog); }
//
// Usable before anything else of the program is initialised.
template <typename Signature>
class SystemFunction;

template <typename Result, typename... Args>
class SystemFunction<Result(Args...)> {
 public:
  using Body = std::function<Result(Args...)>;

  constexpr explicit SystemFunction(const char* name) : m_name(name) {}

  Result operator()(Args... args) {
    const Body* const body = m_body.load();
    return body != nullptr ? (*body)(args...) : Real(args...);
  }

  Result Real(Args... args) const {
    return reinterpret_cast<Result (*)(Args...)>(dlsym(RTLD_NEXT, m_name))(args...);
  }

 private:
  template <typename>
  friend class Replacement;

  const char* m_name;
  std::atomic<const Body*> m_body{nullptr};
};

// While it lives, calls of the function go to `body`. One at a time for each function.
template <typename Signature>
class Replacement {
 public:
  Replacement(SystemFunction<Signature>& function, std::function<Signature> body)
      : m_function(function), m_body(std::move(body)) {
    m_function.m_body = &m_body;
  }
  ~Replacement() { m_function.m_body = nullptr; }
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

 private:
  SystemFunction<Signature>& m_function;
  const std::function<Signature> m_body;
};
