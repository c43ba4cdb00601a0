# qvx_flags: the one place for the language level, the warnings and the sanitizers. Every target of the
# project links it; nothing of it is exported to users of the library but the include path.

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

add_library(qvx_flags INTERFACE)
target_compile_features(qvx_flags INTERFACE cxx_std_20)
target_compile_options(qvx_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)

# gcc 12 sees overlapping copies inside std::string that are not there (its bug 105651, mended in gcc 13).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(qvx_flags INTERFACE -Wno-restrict)
endif()

if(QVX_SANITIZE STREQUAL "memory")
  include(cmake/QvxMemorySanitizer.cmake)
elseif(QVX_SANITIZE OR QVX_BUILD_FUZZERS)
  # To look at an object's type the sanitizer needs descriptors, which some tests take from the process.
  set(qvx_sanitizers -fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=undefined
    -fno-omit-frame-pointer)
  # Half of what is compiled of an unoptimised test would be checks of pointers before each access. The address
  # sanitizer stops at null as well, and the library that is tested keeps these checks.
  list(APPEND qvx_sanitizers $<$<BOOL:$<TARGET_PROPERTY:QVX_TEST>>:-fno-sanitize=null,alignment>)
  target_compile_options(qvx_flags INTERFACE ${qvx_sanitizers})
  target_link_options(qvx_flags INTERFACE ${qvx_sanitizers})
endif()

# What libFuzzer steers by.
if(QVX_BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "QVX_BUILD_FUZZERS needs clang")
  endif()
  target_compile_options(qvx_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
