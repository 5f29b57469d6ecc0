# What makes a fault in what is installed harder to make and to use.
add_library(zu_hardening INTERFACE)
target_compile_options(zu_hardening INTERFACE -Wsign-conversion -Wformat=2)
target_compile_options(zu_hardening INTERFACE -fstack-protector-strong -fcf-protection=full)
target_link_options(zu_hardening INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,shstk)
if(NOT ZUNETWORK_SANITIZE) # a sanitizer sees more when calls are left as they are
  target_compile_options(zu_hardening INTERFACE "SHELL:-include ${CMAKE_CURRENT_LIST_DIR}/fortify.h")
endif()
