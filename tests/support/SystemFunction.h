#pragma once

#include <dlfcn.h>

#include <atomic>
#include <functional>
#include <type_traits>
#include <utility>

#include "support/CallScript.h"

// What of a SystemFunction does not depend on how the system's own is called.
template <typename Signature>
class Replaceable : public CallScript {
 protected:
  constexpr Replaceable() = default;

  template <typename>
  friend class Replacement;
  std::atomic<const std::function<Signature>*> m_body{nullptr};
};

// A function of the system that a test program defines itself, so that the shared libraries call
// it too. It goes on to the system's own unless a Replacement or a Fault lives:
//
//   SystemFunction<int(int, int)> gListen{"listen"};
//   extern "C" int listen(int s, int backlog) noexcept { return gListen(s, backlog); }
//
// Usable before anything else of the program is initialised. `Pointer` is the type of the system's
// own where that ends in "...".
template <typename Signature, typename Pointer = Signature*>
class SystemFunction;

template <typename Result, typename... Args, typename Pointer>
class SystemFunction<Result(Args...), Pointer> : public Replaceable<Result(Args...)> {
 public:
  constexpr explicit SystemFunction(const char* name) : m_name(name) {}

  Result operator()(Args... args) {
    if (this->Fails()) return Failure();
    const std::function<Result(Args...)>* const body = this->m_body;
    return body != nullptr ? (*body)(args...) : Real(args...);
  }

  Result Real(Args... args) const {
    return reinterpret_cast<Pointer>(dlsym(RTLD_NEXT, m_name))(args...);
  }

 private:
  static Result Failure() {
    if constexpr (std::is_pointer_v<Result>) {
      return nullptr;
    } else {
      return static_cast<Result>(errno == 0 ? 0 : -1);
    }
  }

  const char* m_name;
};

// While it lives, calls of the function go to `body`, which reaches the system's own by Real(). The
// one that was made last counts.
template <typename Signature>
class Replacement {
 public:
  Replacement(Replaceable<Signature>& function, std::common_type_t<std::function<Signature>> body)
      : m_function(function), m_body(std::move(body)), m_before(function.m_body) {
    m_function.m_body = &m_body;
  }
  ~Replacement() { m_function.m_body = m_before; }
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

 private:
  Replaceable<Signature>& m_function;
  const std::function<Signature> m_body;
  const std::function<Signature>* const m_before;
};
