# Libraries named libcurl.so with fakes of OpenSSL's signing functions, each in a folder of its own:
#   complete              all of them, by their names of before 1.1 and of today
#   without_<functions>   lacks these
#   absent                no library at all, only a file of its name
set(fake_signing_dir ${CMAKE_CURRENT_BINARY_DIR}/fake_signing)

function(fake_signing folder)
  set(target fake_signing_${folder})
  add_library(${target} SHARED fakes/FakeSigning.c)
  set_target_properties(${target} PROPERTIES OUTPUT_NAME curl LIBRARY_OUTPUT_DIRECTORY
                                                              ${fake_signing_dir}/${folder})
  if(ARGN)
    list(JOIN ARGN "; " hidden)
    set(script ${fake_signing_dir}/${folder}.map)
    file(CONFIGURE OUTPUT ${script} CONTENT "{ local: ${hidden}; };\n")
    target_link_options(${target} PRIVATE -Wl,--version-script=${script})
  endif()
  add_dependencies(Signing_test ${target})
endfunction()

fake_signing(complete)
foreach(function d2i_PKCS12_fp PKCS12_parse ERR_get_error_line PKCS12_free EVP_sha256 EVP_DigestInit
                 EVP_DigestUpdate EVP_SignFinal X509_free EVP_PKEY_free EVP_PKEY_base_id
                 EVP_PKEY_size)
  fake_signing(without_${function} ${function})
endforeach()
fake_signing(without_new_names EVP_MD_CTX_new EVP_MD_CTX_free)
fake_signing(without_old_names EVP_MD_CTX_create EVP_MD_CTX_destroy)
fake_signing(without_makers EVP_MD_CTX_create EVP_MD_CTX_new)
fake_signing(without_breakers EVP_MD_CTX_destroy EVP_MD_CTX_free)
fake_signing(without_destroy_and_new EVP_MD_CTX_destroy EVP_MD_CTX_new)
file(WRITE ${fake_signing_dir}/absent/libcurl.so "not a library\n")

add_executable(signing_probe fakes/signing_probe.cpp)
target_link_libraries(signing_probe PRIVATE ZuNetwork zu_warnings)
add_dependencies(Signing_test signing_probe)
target_link_libraries(Signing_test PRIVATE zu_server_support)
target_compile_definitions(Signing_test PRIVATE SIGNING_PROBE="$<TARGET_FILE:signing_probe>"
                                                FAKE_SIGNING_DIR="${fake_signing_dir}")
