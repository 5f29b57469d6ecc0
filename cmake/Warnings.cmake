# What every target of the product is compiled with, beside what its users need to know.
add_library(zu_warnings INTERFACE)
target_compile_options(
  zu_warnings
  INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
            $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor> $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
            $<$<BOOL:${ZUNETWORK_WERROR}>:-Werror>)

if(ZUNETWORK_SANITIZE)
  add_compile_options(-fsanitize=${ZUNETWORK_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZUNETWORK_SANITIZE})
endif()
