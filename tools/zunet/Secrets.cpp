#include "Secrets.h"

#include <algorithm>
#include <vector>

#include "Url.h"

namespace {

struct Span {
  size_t begin;
  size_t end;
};

// Parts of the names of headers and parameters whose values are nobody else's business.
constexpr std::string_view kSecretNames[] = {"auth", "cookie", "token", "key",     "secret", "pass",
                                             "pwd",  "cred",   "sig",   "session", "sid",    "jwt"};

bool IsSecretName(std::string_view name) {
  // How a server wants a login is what a trace is read for; an authority is a host's name.
  const std::string lower = Lower(std::string(name));
  for (const char* const word : {"authenticate", "authority"}) {
    if (lower.find(word) != std::string::npos) return false;
  }
  return std::any_of(std::begin(kSecretNames), std::end(kSecretNames),
                     [&](std::string_view part) { return lower.find(part) != std::string::npos; });
}

bool IsNameCharacter(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '-' ||
         character == '_' || character == '.' || character == '[' || character == '%';
}

// The name that ends where a separator stands.
std::string_view NameBefore(std::string_view line, size_t separator) {
  size_t start = separator;
  while (start > 0 && IsNameCharacter(line[start - 1])) --start;
  return line.substr(start, separator - start);
}

// "Name: value", also behind an option's name and as the trace of HTTP/2 has it, in brackets.
void FindHeader(std::string_view line, std::vector<Span>& spans) {
  for (size_t colon = line.find(':'); colon != std::string_view::npos;
       colon = line.find(':', colon + 1)) {
    if (!IsSecretName(NameBefore(line, colon))) continue;
    const size_t value = std::min(line.find_first_not_of(' ', colon + 1), line.size());
    spans.push_back({value, line.size()});
    return;
  }
}

// "name=value" in a query, a form or a cookie.
void FindParameters(std::string_view line, std::vector<Span>& spans) {
  for (size_t equals = line.find('='); equals != std::string_view::npos;
       equals = line.find('=', equals + 1)) {
    const std::string_view name = NameBefore(line, equals);
    const size_t start = equals - name.size();
    const bool isParameter =
        start == 0 || std::string_view("?&;'\"").find(line[start - 1]) != std::string_view::npos;
    const bool isSecret = IsSecretName(name) || name == "code";
    if (!isParameter || StartsWith(name, "--") || !isSecret) continue;
    spans.push_back({equals + 1, std::min(line.find_first_of("& '\"#", equals), line.size())});
  }
}

// What stands before the host of a URL.
void FindUsers(std::string_view line, std::vector<Span>& spans) {
  constexpr std::string_view kSchemeEnd = "://";
  for (size_t scheme = line.find(kSchemeEnd); scheme != std::string_view::npos;
       scheme = line.find(kSchemeEnd, scheme + 1)) {
    const size_t start = scheme + kSchemeEnd.size();
    const size_t end = std::min(line.find_first_of("/?# '\"", start), line.size());
    const size_t at = line.substr(start, end - start).rfind('@');
    if (at != std::string_view::npos) spans.push_back({start, start + at});
  }
}

void FindCommand(std::string_view line, std::vector<Span>& spans) {
  for (const std::string_view command : {"PASS ", "ACCT "}) {
    if (StartsWith(line, command)) spans.push_back({command.size(), line.size()});
  }
}

std::vector<Span> FindSecrets(std::string_view line) {
  std::vector<Span> spans;
  FindHeader(line, spans);
  FindParameters(line, spans);
  FindUsers(line, spans);
  FindCommand(line, spans);
  std::sort(spans.begin(), spans.end(),
            [](const Span& one, const Span& other) { return one.begin < other.begin; });
  return spans;
}

void Blank(char* text, const Span& span) { std::fill(text + span.begin, text + span.end, '*'); }

// The value of an option that names a user: "name:password" or "name:password@host".
void BlankUser(char* text, std::string_view option, size_t start) {
  const std::string_view value = std::string_view(text).substr(start);
  const size_t colon = value.find(':');
  if (option == "--user" && colon != std::string_view::npos) {
    Blank(text, {start + colon + 1, start + value.size()});
  }
  const size_t at = value.rfind('@');
  if (option == "--proxy" && at != std::string_view::npos) Blank(text, {start, start + at});
}

}  // namespace

std::string Redacted(std::string_view line) {
  std::string shown;
  size_t position = 0;
  for (const Span& span : FindSecrets(line)) {
    if (span.end <= position) continue;
    if (span.begin >= position) {
      shown.append(line.substr(position, span.begin - position)).append("(not shown)");
    }
    position = span.end;
  }
  return shown.append(line.substr(position));
}

void HideSecrets(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    const size_t equals = word.find('=');
    if (StartsWith(word, "--") && equals != std::string_view::npos) {
      BlankUser(argv[i], word.substr(0, equals), equals + 1);
    }
    BlankUser(argv[i], argv[i - 1], 0);
    for (const Span& span : FindSecrets(word)) Blank(argv[i], span);
  }
}
