# Finds the headers of libcurl and Boost, which those of ZuNetwork include. Neither is linked. Sets
# ZuNetwork_MISSING_HEADERS to a sentence when one is not there.
find_path(ZuNetwork_CURL_INCLUDE_DIR curl/curl.h DOC "Folder of curl/curl.h")
find_path(ZuNetwork_BOOST_INCLUDE_DIR boost/smart_ptr/shared_ptr.hpp DOC "Folder of boost/")
mark_as_advanced(ZuNetwork_CURL_INCLUDE_DIR ZuNetwork_BOOST_INCLUDE_DIR)

set(ZuNetwork_MISSING_HEADERS)
if(NOT ZuNetwork_CURL_INCLUDE_DIR)
  string(APPEND ZuNetwork_MISSING_HEADERS
         "The headers of libcurl (curl/curl.h) are not found: install them (Debian: "
         "libcurl4-openssl-dev), or set ZuNetwork_CURL_INCLUDE_DIR to their folder. ")
endif()
if(NOT ZuNetwork_BOOST_INCLUDE_DIR)
  string(APPEND ZuNetwork_MISSING_HEADERS
         "The headers of Boost (boost/smart_ptr/shared_ptr.hpp) are not found: install them "
         "(Debian: libboost-dev), or set ZuNetwork_BOOST_INCLUDE_DIR to their folder. ")
endif()
