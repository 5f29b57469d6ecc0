// What a program pays for the libraries before its first line runs, and their size on the disk.

#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "Compare.h"

extern char** environ;

namespace {

Timed Start(const char* name, const std::string& program) {
  return Call(name, [path = START_FOLDER "/" + program] {
    char* arguments[] = {const_cast<char*>(path.c_str()), nullptr};
    pid_t process = 0;
    int status = 0;
    if (posix_spawn(&process, path.c_str(), nullptr, nullptr, arguments, environ) != 0) {
      std::abort();
    }
    if (waitpid(process, &status, 0) != process || status != 0) std::abort();
  });
}

void Program(benchmark::State& state) {
  Compare(state, Ratio(1.28), Start("a program linked with ZuNetwork", "start_with_library"),
          Start("a C program that opens libcurl", "start_with_dlopen"),
          {Start("nothing", "start_with_nothing"), Start("libcurl linked", "start_with_curl"),
           Start("POCO linked", "start_with_poco")});
}
ROW(Program, "Start/Program");

void Library(benchmark::State& state, const char* path) {
  ReportBytes(state, NoLimit(), "the file of the library",
              static_cast<double>(std::filesystem::file_size(path)));
}
ROW_OF(Library, "Size/libZuUtils", LIBRARY_ZUUTILS);
ROW_OF(Library, "Size/libZuNetwork", LIBRARY_ZUNETWORK);
ROW_OF(Library, "Size/libcurl", LIBRARY_CURL);
ROW_OF(Library, "Size/libPocoFoundation", LIBRARY_POCO_FOUNDATION);
ROW_OF(Library, "Size/libPocoNet", LIBRARY_POCO_NET);

}  // namespace
