#pragma once

#include <atomic>
#include <cerrno>

// How often a function of the system was called, and which of its calls fail. Base of
// SystemFunction.
class CallScript {
 public:
  int Calls() const { return m_calls; }
  void ResetCalls() { m_calls = 0; }

 protected:
  constexpr CallScript() = default;

  // Counts the call; true, with errno set, when it is to fail.
  bool Fails() {
    const int number = ++m_calls;
    if (number < m_first || number > m_last) return false;
    errno = m_err;
    return true;
  }

 private:
  friend class Fault;

  std::atomic<int> m_calls{0};
  std::atomic<int> m_first{0};
  std::atomic<int> m_last{0};
  std::atomic<int> m_err{0};
};

// While it lives, `count` calls of the function fail with `err`, beginning with the call number
// `first` from now: they return -1, or a null pointer. With 0 for an error they return 0.
class Fault {
 public:
  Fault(CallScript& function, int err, int first = 1, int count = 1) : m_function(function) {
    m_function.m_calls = 0;
    m_function.m_err = err;
    m_function.m_last = first + count - 1;
    m_function.m_first = first;
  }
  ~Fault() { m_function.m_last = m_function.m_first = 0; }
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;

  bool HasHappened() const { return m_function.m_calls >= m_function.m_first; }

 private:
  CallScript& m_function;
};
