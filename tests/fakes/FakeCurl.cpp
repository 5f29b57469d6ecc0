#include "fakes/FakeCurl.h"

#include <curl/typecheck-gcc.h>  // tells which options take a text

#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <new>

#undef curl_easy_setopt
#undef curl_easy_getinfo

namespace {

FakeCurl gFake;

char gVersion[] = "libcurl/fake";
curl_version_info_data gVersionInfo;
curl_easyoption gStringOption;
curl_easyoption gOtherOption;
char gMulti;

using Lock = std::lock_guard<std::recursive_mutex>;

std::string Show(const void* pointer) { return gFake.Show(pointer); }
std::string Show(long number) { return std::to_string(number); }
std::string Show(int number) { return std::to_string(number); }
std::string Show(const char* text) {
  return text == nullptr ? "null" : "\"" + std::string(text) + "\"";
}

template <typename... Args>
void Record(std::string call, Args... args) {
  ((call += " " + Show(args)), ...);
  gFake.calls.push_back(std::move(call));
}

void Misuse() { gFake.misuses.push_back(gFake.calls.back()); }

void Name(const void* pointer, const std::string& kind) {
  gFake.names[pointer] = kind + std::to_string(++gFake.ordinals[kind]);
}

int Result(const std::string& function) {
  const auto found = gFake.results.find(function);
  return found == gFake.results.end() ? 0 : found->second;
}

CURLcode Code(const std::string& function) { return static_cast<CURLcode>(Result(function)); }
CURLMcode MultiCode(const std::string& function) {
  return static_cast<CURLMcode>(Result(function));
}

bool IsNull(const std::string& function) { return gFake.nulls.count(function) != 0; }

FakeHandle* FindHandle(const void* handle) {
  const auto found = gFake.handles.find(handle);
  return found == gFake.handles.end() ? nullptr : found->second.get();
}

// A form's field, with what it was made of.
struct Field : curl_httppost {
  std::string shown;
};

void FreeList(curl_slist* list) {
  while (list != nullptr) {
    curl_slist* const next = list->next;
    std::free(list->data);
    delete list;
    list = next;
  }
}

void FreeForm(curl_httppost* form) {
  while (form != nullptr) {
    curl_httppost* const next = form->next;
    delete static_cast<Field*>(form);
    form = next;
  }
}

FakeValue ReadValue(CURLoption option, va_list args) {
  constexpr int kTypes = 10000;
  FakeValue value;
  switch (option - option % kTypes) {
    case CURLOPTTYPE_LONG:
      value.number = va_arg(args, long);
      value.shown = Show(value.number);
      return value;
    case CURLOPTTYPE_OFF_T:
      value.number = va_arg(args, curl_off_t);
      value.shown = Show(value.number);
      return value;
    default:
      value.pointer = va_arg(args, void*);
  }
  if (curlcheck_string_option(option)) {
    const auto* const text = static_cast<const char*>(value.pointer);
    value.shown = Show(text);
    if (text != nullptr) value.text = text;
    value.pointer = nullptr;
  } else {
    value.shown = Show(value.pointer);
  }
  return value;
}

FakeTransfer Snapshot(const FakeHandle& handle) {
  FakeTransfer transfer;
  for (const auto& [option, value] : handle.options) transfer.options[option] = value.shown;
  const auto find = [&](CURLoption option) {
    const FakeValue* const value = handle.Find(option);
    return value == nullptr ? FakeValue{} : *value;
  };
  transfer.url = find(CURLOPT_URL).text;
  const auto* line = static_cast<const curl_slist*>(find(CURLOPT_HTTPHEADER).pointer);
  for (; line != nullptr; line = line->next) transfer.headers.emplace_back(line->data);
  const auto* field = static_cast<const curl_httppost*>(find(CURLOPT_HTTPPOST).pointer);
  for (; field != nullptr; field = field->next) {
    transfer.form.push_back(static_cast<const Field*>(field)->shown);
    transfer.fieldHeaders.emplace_back(field->contentheader ? field->contentheader->data : "");
  }
  const auto* const body = static_cast<const char*>(find(CURLOPT_POSTFIELDS).pointer);
  if (body != nullptr) {
    const FakeValue* const size = handle.Find(CURLOPT_POSTFIELDSIZE);
    const bool isText = size == nullptr || size->number < 0;
    transfer.body.emplace(body, isText ? std::strlen(body) : static_cast<size_t>(size->number));
  }
  return transfer;
}

void GiveErrorText(const FakeHandle& handle) {
  const FakeValue* const buffer = handle.Find(CURLOPT_ERRORBUFFER);
  if (buffer == nullptr || buffer->pointer == nullptr || gFake.errorText.empty()) return;
  std::snprintf(static_cast<char*>(const_cast<void*>(buffer->pointer)), CURL_ERROR_SIZE, "%s",
                gFake.errorText.c_str());
}

char* HandOut(const std::string& text) {
  auto* const copy = static_cast<char*>(std::malloc(text.size() + 1));
  std::memcpy(copy, text.c_str(), text.size() + 1);
  gFake.texts.insert(copy);
  Name(copy, "text");
  return copy;
}

std::string Given(const char* text, int length) {
  return length == 0 ? text : std::string(text, static_cast<size_t>(length));
}

std::string ShowFormValue(int option, va_list args, Field& field) {
  switch (option) {
    case CURLFORM_CONTENTHEADER:
      field.contentheader = va_arg(args, curl_slist*);
      return Show(static_cast<void*>(field.contentheader));
    case CURLFORM_BUFFERPTR:
    case CURLFORM_STREAM:
      return Show(va_arg(args, void*));
    case CURLFORM_BUFFERLENGTH:
    case CURLFORM_CONTENTSLENGTH:
    case CURLFORM_NAMELENGTH:
      return Show(va_arg(args, long));
    default:
      return Show(va_arg(args, const char*));
  }
}

}  // namespace

FakeCurl::~FakeCurl() { Reset(); }

void FakeCurl::Reset() {
  for (char* const text : texts) std::free(text);
  for (curl_slist* const list : lists) FreeList(list);
  for (curl_httppost* const form : forms) FreeForm(form);
  texts.clear();
  lists.clear();
  forms.clear();
  handles.clear();
  calls.clear();
  transfers.clear();
  misuses.clear();
  results.clear();
  refusedOptions.clear();
  refusedOptionAt.clear();
  refusedInfos.clear();
  infos.clear();
  infos[CURLINFO_RESPONSE_CODE].number = 200;
  nulls.clear();
  onPerform = nullptr;
  errorText.clear();
  names.clear();
  ordinals.clear();
  setopts = 0;
}

extern "C" {

FakeCurl* fake_curl();
void fake_curl_reset();

// The tests' own way in.
FakeCurl* fake_curl() { return &gFake; }
void fake_curl_reset() { gFake.Reset(); }

CURLcode curl_global_init(long flags) {
  const Lock lock(gFake.mutex);
  Record("global_init", flags);
  return Code("global_init");
}

void curl_global_cleanup() {
  const Lock lock(gFake.mutex);
  Record("global_cleanup");
}

char* curl_version() {
  const Lock lock(gFake.mutex);
  Record("version");
  return gVersion;
}

curl_version_info_data* curl_version_info(CURLversion age) {
  const Lock lock(gFake.mutex);
  Record("version_info", int{age});
  gVersionInfo.version = gVersion;
  return &gVersionInfo;
}

time_t curl_getdate(const char* date, const time_t* now) {
  const Lock lock(gFake.mutex);
  Record("getdate", date, static_cast<const void*>(now));
  return Result("getdate");
}

void curl_free(void* text) {
  const Lock lock(gFake.mutex);
  Record("free", text);
  if (text == nullptr) return;
  if (gFake.texts.erase(static_cast<char*>(text)) == 0) return Misuse();
  std::free(text);
}

CURL* curl_easy_init() {
  const Lock lock(gFake.mutex);
  Record("easy_init");
  if (IsNull("easy_init")) return nullptr;
  auto handle = std::make_unique<FakeHandle>();
  CURL* const pointer = handle.get();
  Name(pointer, "handle");
  gFake.handles[pointer] = std::move(handle);
  return pointer;
}

void curl_easy_cleanup(CURL* handle) {
  const Lock lock(gFake.mutex);
  Record("easy_cleanup", handle);
  if (handle != nullptr && gFake.handles.erase(handle) == 0) Misuse();
}

void curl_easy_reset(CURL* handle) {
  const Lock lock(gFake.mutex);
  Record("easy_reset", handle);
  FakeHandle* const state = FindHandle(handle);
  if (state == nullptr) return Misuse();
  state->options.clear();
}

CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  const Lock lock(gFake.mutex);
  va_list args;
  va_start(args, option);
  FakeValue value = ReadValue(option, args);
  va_end(args);
  gFake.calls.push_back("easy_setopt " + Show(handle) + " " + NameOf(option) + " " + value.shown);
  if (Code("easy_setopt") != CURLE_OK) return Code("easy_setopt");
  const auto refusedAt = gFake.refusedOptionAt.find(++gFake.setopts);
  if (refusedAt != gFake.refusedOptionAt.end()) return static_cast<CURLcode>(refusedAt->second);
  const auto refused = gFake.refusedOptions.find(option);
  if (refused != gFake.refusedOptions.end()) return static_cast<CURLcode>(refused->second);
  if (handle == nullptr) return CURLE_BAD_FUNCTION_ARGUMENT;
  FakeHandle* const state = FindHandle(handle);
  if (state == nullptr) {
    Misuse();
  } else {
    state->options[option] = std::move(value);
  }
  return CURLE_OK;
}

// Tells a text from other values, and stands in no record.
const curl_easyoption* curl_easy_option_by_id(CURLoption option) {
  gStringOption.type = CURLOT_STRING;
  gOtherOption.type = CURLOT_OBJECT;
  return curlcheck_string_option(option) ? &gStringOption : &gOtherOption;
}

CURLcode curl_easy_perform(CURL* handle) {
  std::unique_lock<std::recursive_mutex> lock(gFake.mutex);
  Record("easy_perform", handle);
  if (handle == nullptr) return CURLE_BAD_FUNCTION_ARGUMENT;
  const FakeHandle* const state = FindHandle(handle);
  if (state == nullptr) {
    Misuse();
    return Code("easy_perform");
  }
  gFake.transfers.push_back(Snapshot(*state));
  const auto hook = gFake.onPerform;
  CURLcode code = Code("easy_perform");
  lock.unlock();
  if (hook) code = hook(*state);
  lock.lock();
  if (code != CURLE_OK) GiveErrorText(*state);
  return code;
}

CURLcode curl_easy_pause(CURL* handle, int bitmask) {
  const Lock lock(gFake.mutex);
  Record("easy_pause", handle, bitmask);
  return Code("easy_pause");
}

CURLcode curl_easy_getinfo(CURL* handle, CURLINFO info, ...) {
  const Lock lock(gFake.mutex);
  va_list args;
  va_start(args, info);
  void* const out = va_arg(args, void*);
  va_end(args);
  gFake.calls.push_back("easy_getinfo " + Show(handle) + " " + Show(int{info}));
  if (Code("easy_getinfo") != CURLE_OK) return Code("easy_getinfo");
  const auto refused = gFake.refusedInfos.find(info);
  if (refused != gFake.refusedInfos.end()) return static_cast<CURLcode>(refused->second);
  if (handle == nullptr) return CURLE_BAD_FUNCTION_ARGUMENT;
  const FakeInfo& value = gFake.infos[info];
  switch (info & CURLINFO_TYPEMASK) {
    case CURLINFO_STRING:
      *static_cast<const char**>(out) = value.text ? value.text->c_str() : nullptr;
      return CURLE_OK;
    case CURLINFO_LONG:
      *static_cast<long*>(out) = value.number;
      return CURLE_OK;
    case CURLINFO_DOUBLE:
      *static_cast<double*>(out) = value.real;
      return CURLE_OK;
    default:
      return CURLE_UNKNOWN_OPTION;
  }
}

const char* curl_easy_strerror(CURLcode code) {
  const Lock lock(gFake.mutex);
  Record("easy_strerror", int{code});
  return "a fake error";
}

char* curl_easy_escape(CURL* handle, const char* text, int length) {
  const Lock lock(gFake.mutex);
  Record("easy_escape", handle, text, length);
  if (IsNull("easy_escape")) return nullptr;
  std::string coded;
  for (const char c : Given(text, length)) {
    const int byte = static_cast<unsigned char>(c);
    char escape[4];
    std::snprintf(escape, sizeof escape, "%%%02X", static_cast<unsigned>(byte));
    coded += std::isalnum(byte) || std::strchr("-._~", byte) ? std::string(1, c) : escape;
  }
  return HandOut(coded);
}

char* curl_easy_unescape(CURL* handle, const char* text, int length, int* outLength) {
  const Lock lock(gFake.mutex);
  Record("easy_unescape", handle, text, length, static_cast<const void*>(outLength));
  if (IsNull("easy_unescape")) return nullptr;
  const std::string coded = Given(text, length);
  std::string plain;
  for (size_t i = 0; i < coded.size(); ++i) {
    const bool isEscape = coded[i] == '%' && i + 2 < coded.size() && std::isxdigit(coded[i + 1]) &&
                          std::isxdigit(coded[i + 2]);
    plain +=
        isEscape ? static_cast<char>(std::stoi(coded.substr(i + 1, 2), nullptr, 16)) : coded[i];
    if (isEscape) i += 2;
  }
  if (outLength != nullptr) *outLength = static_cast<int>(plain.size());
  return HandOut(plain);
}

curl_slist* curl_slist_append(curl_slist* list, const char* line) {
  const Lock lock(gFake.mutex);
  Record("slist_append", static_cast<void*>(list), line);
  if (IsNull("slist_append")) return nullptr;
  if (list != nullptr && gFake.lists.count(list) == 0) {
    Misuse();
    return list;
  }
  auto* const made = new curl_slist{strdup(line), nullptr};
  if (list == nullptr) {
    gFake.lists.insert(made);
    Name(made, "list");
    return made;
  }
  curl_slist* last = list;
  while (last->next != nullptr) last = last->next;
  last->next = made;
  return list;
}

void curl_slist_free_all(curl_slist* list) {
  const Lock lock(gFake.mutex);
  Record("slist_free_all", static_cast<void*>(list));
  if (list == nullptr) return;
  if (gFake.lists.erase(list) == 0) return Misuse();
  FreeList(list);
}

CURLFORMcode curl_formadd(curl_httppost** first, curl_httppost** last, ...) {
  const Lock lock(gFake.mutex);
  auto field = std::make_unique<Field>();
  va_list args;
  va_start(args, last);
  std::string shown;
  for (;;) {
    const int option = va_arg(args, int);
    shown += " " + Show(option);
    if (option == CURLFORM_END) break;
    shown += " " + ShowFormValue(option, args, *field);
  }
  va_end(args);
  gFake.calls.push_back("formadd " + Show(static_cast<void*>(first)) + " " +
                        Show(static_cast<void*>(last)) + shown);
  if (Result("formadd") != 0) return static_cast<CURLFORMcode>(Result("formadd"));
  field->shown = shown.substr(1);
  Field* const made = field.release();
  if (*first == nullptr) {
    *first = made;
    gFake.forms.insert(made);
    Name(made, "form");
  } else {
    (*last)->next = made;
  }
  *last = made;
  return CURL_FORMADD_OK;
}

void curl_formfree(curl_httppost* form) {
  const Lock lock(gFake.mutex);
  Record("formfree", static_cast<void*>(form));
  if (form == nullptr) return;
  if (gFake.forms.erase(form) == 0) return Misuse();
  FreeForm(form);
}

CURLM* curl_multi_init() {
  const Lock lock(gFake.mutex);
  Record("multi_init");
  return &gMulti;
}

CURLMcode curl_multi_add_handle(CURLM* multi, CURL* handle) {
  const Lock lock(gFake.mutex);
  Record("multi_add_handle", multi, handle);
  return MultiCode("multi_add_handle");
}

CURLMcode curl_multi_remove_handle(CURLM* multi, CURL* handle) {
  const Lock lock(gFake.mutex);
  Record("multi_remove_handle", multi, handle);
  return MultiCode("multi_remove_handle");
}

CURLMcode curl_multi_perform(CURLM* multi, int* running) {
  const Lock lock(gFake.mutex);
  Record("multi_perform", multi, static_cast<void*>(running));
  return MultiCode("multi_perform");
}

CURLMcode curl_multi_fdset(CURLM* multi, fd_set* readSet, fd_set* writeSet, fd_set* exceptionSet,
                           int* maxDescriptor) {
  const Lock lock(gFake.mutex);
  Record("multi_fdset", multi, static_cast<void*>(readSet), static_cast<void*>(writeSet),
         static_cast<void*>(exceptionSet), static_cast<void*>(maxDescriptor));
  return MultiCode("multi_fdset");
}

CURLMcode curl_multi_timeout(CURLM* multi, long* milliseconds) {
  const Lock lock(gFake.mutex);
  Record("multi_timeout", multi, static_cast<void*>(milliseconds));
  return MultiCode("multi_timeout");
}

}  // extern "C"
