#pragma once

#define CURL_DISABLE_DEPRECATION  // the form functions are among what is recorded
#include <curl/curl.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fakes/OptionNames.h"

// A libcurl.so that transfers nothing: it writes down what it is asked for and answers as a test
// told it to. This header is shared by the library (FakeCurl.cpp) and the tests, which reach the
// one FakeCurl object in it through FakeCurlTest.h. A function is named as libcurl names it,
// without its "curl_".

// A value as it was given to curl_easy_setopt; texts are copied, as libcurl does.
struct FakeValue {
  std::string shown;  // as it stands in a call
  long number = 0;
  const void* pointer = nullptr;  // null for a text
  std::string text;
};

// The state of one easy handle. A test's perform hook plays libcurl's part with it.
struct FakeHandle {
  std::map<int, FakeValue> options;  // by option number, what is in force

  const FakeValue* Find(CURLoption option) const {
    const auto found = options.find(option);
    return found == options.end() ? nullptr : &found->second;
  }

  // Hands `data` to the handle's write, or header, callback; its result.
  size_t Write(std::string data) const {
    return Give(CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA, data);
  }
  size_t WriteHeader(std::string data) const {
    return Give(CURLOPT_HEADERFUNCTION, CURLOPT_HEADERDATA, data);
  }

  // What the read callback gives when it is asked for up to `size` bytes.
  std::string Read(size_t size) const {
    std::string data(size, '\0');
    data.resize(Give(CURLOPT_READFUNCTION, CURLOPT_READDATA, data));
    return data;
  }

 private:
  void* PointerOf(CURLoption option) const {
    const FakeValue* const value = Find(option);
    return value == nullptr ? nullptr : const_cast<void*>(value->pointer);
  }
  size_t Give(CURLoption functionOption, CURLoption dataOption, std::string& data) const {
    const auto function = reinterpret_cast<curl_write_callback>(PointerOf(functionOption));
    return function ? function(data.data(), 1, data.size(), PointerOf(dataOption)) : 0;
  }
};

// What a handle was set to when it was performed.
struct FakeTransfer {
  std::map<int, std::string> options;  // by number, as shown in the calls
  std::string url;
  std::vector<std::string> headers;       // the lines of CURLOPT_HTTPHEADER
  std::vector<std::string> form;          // the fields of CURLOPT_HTTPPOST, as shown by formadd
  std::vector<std::string> fieldHeaders;  // the first line of each field's own headers
  std::optional<std::string> body;        // what CURLOPT_POSTFIELDS points to, if it does

  std::string Option(CURLoption option) const {
    const auto found = options.find(option);
    return found == options.end() ? "unset" : found->second;
  }
};

struct FakeInfo {
  long number = 0;
  double real = 0.0;
  std::optional<std::string> text;
};

struct FakeCrypto {
  int numLocks = 41;
  unsigned long (*id)() = nullptr;
  void (*lock)(int mode, int n, const char* file, int line) = nullptr;
};

struct FakeCurl {
  FakeCurl() = default;
  ~FakeCurl();
  FakeCurl(const FakeCurl&) = delete;
  FakeCurl& operator=(const FakeCurl&) = delete;

  // The record: every call in order with its arguments, such as `easy_setopt handle1 10002 "url"`.
  // What this library handed out is shown by kind and ordinal, other pointers in hexadecimal.
  std::vector<std::string> calls;
  std::vector<FakeTransfer> transfers;
  std::vector<std::string> misuses;  // calls on something that is not, or no longer, alive

  // The script. A result that is set is returned at once, without any effect.
  std::map<std::string, int> results;  // by function: "easy_perform" -> 28
  std::map<int, int> refusedOptions;   // by option: the CURLcode
  std::map<int, int> refusedOptionAt;  // by ordinal of the setopt since Reset, from 1
  std::map<int, int> refusedInfos;     // by CURLINFO: the CURLcode
  std::map<int, FakeInfo> infos;       // by CURLINFO; the rest is 0 or null
  std::set<std::string> nulls;         // functions that return null
  std::function<CURLcode(const FakeHandle&)> onPerform;  // what a transfer does, and its result
  std::string errorText;                                 // libcurl's message for a failed transfer

  FakeCrypto crypto;
  bool announceCrypto = false;  // writes the OpenSSL calls to standard error, for the unload

  // What is alive.
  std::map<const void*, std::unique_ptr<FakeHandle>> handles;
  std::set<curl_slist*> lists;     // by their first line
  std::set<curl_httppost*> forms;  // by their first field
  std::set<char*> texts;           // of escape and unescape

  std::map<const void*, std::string> names;
  std::map<std::string, int> ordinals;
  int setopts = 0;
  std::recursive_mutex mutex;

  void Reset();

  std::string Show(const void* pointer) const {
    if (pointer == nullptr) return "null";
    const auto name = names.find(pointer);
    if (name != names.end()) return name->second;
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
  }

  // The names of what is alive; empty when nothing leaked.
  std::vector<std::string> Alive() const {
    std::vector<std::string> alive;
    for (const auto& [handle, state] : handles) alive.push_back(Show(handle));
    for (const auto* list : lists) alive.push_back(Show(list));
    for (const auto* form : forms) alive.push_back(Show(form));
    for (const auto* text : texts) alive.push_back(Show(text));
    return alive;
  }

  // The calls from the `first`-th on whose text begins with `prefix`, without it.
  std::vector<std::string> CallsTo(const std::string& prefix, size_t first = 0) const {
    std::vector<std::string> found;
    for (size_t i = first; i < calls.size(); ++i) {
      if (calls[i].compare(0, prefix.size(), prefix) == 0) {
        found.push_back(calls[i].substr(prefix.size()));
      }
    }
    return found;
  }
};

// How an option that is set is shown in a call, behind the handle: as "CURLOPT_NOBODY 1".
inline std::string Opt(CURLoption option, long value) {
  return NameOf(option) + " " + std::to_string(value);
}
inline std::string Opt(CURLoption option, int value) { return Opt(option, long{value}); }
inline std::string Opt(CURLoption option, std::nullptr_t) { return NameOf(option) + " null"; }
inline std::string Opt(CURLoption option, const std::string& text) {
  return NameOf(option) + " \"" + text + "\"";
}
inline std::string Opt(CURLoption option, const char* text) {
  return Opt(option, std::string(text));
}
inline std::string Opt(CURLoption option, const void* pointer) {
  char text[32] = "null";
  if (pointer != nullptr) std::snprintf(text, sizeof text, "%p", pointer);
  return NameOf(option) + " " + text;
}
template <typename Result, typename... Args>
std::string Opt(CURLoption option, Result (*function)(Args...)) {
  return Opt(option, reinterpret_cast<const void*>(function));
}
