# cmake -DCMAKE_PREFIX_PATH=... -DVERSION=... -P check_version.cmake: packages of another major
# version, or newer ones, are asked for and not found, although the installed one is considered.
cmake_minimum_required(VERSION 3.25)

foreach(asked 2.0 2 0.9 1.1 1.0.1 99)
  find_package(ZuNetwork ${asked} CONFIG QUIET)
  if(ZuNetwork_FOUND)
    message(SEND_ERROR "Version ${asked} is found, though ${VERSION} is installed")
  endif()
  if(NOT "${VERSION}" IN_LIST ZuNetwork_CONSIDERED_VERSIONS)
    message(SEND_ERROR "Version ${VERSION} is not considered: '${ZuNetwork_CONSIDERED_VERSIONS}'")
  endif()
  unset(ZuNetwork_DIR CACHE)
endforeach()
