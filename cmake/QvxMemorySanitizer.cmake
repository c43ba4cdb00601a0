# Adds the memory sanitizer to qvx_flags. It takes for unset what is set by code that was compiled without it: templates of
# the C++ library are therefore compiled with the program, and tests/support/memory_sanitizer.cc wraps the other functions.

if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "QVX_SANITIZE=memory needs clang")
endif()

set(folder ${PROJECT_SOURCE_DIR}/tests/support)
set(options -fsanitize=memory -fsanitize-memory-track-origins -fno-omit-frame-pointer
  -fsanitize-ignorelist=${folder}/memory_sanitizer.ignored)
target_compile_options(qvx_flags INTERFACE ${options})
target_compile_definitions(qvx_flags INTERFACE _GLIBCXX_EXTERN_TEMPLATE=0)

# Not sanitized itself, since the functions that it calls set what it looks at.
add_library(qvx_memory_sanitizer OBJECT ${folder}/memory_sanitizer.cc)
target_compile_features(qvx_memory_sanitizer PRIVATE cxx_std_20)
target_include_directories(qvx_memory_sanitizer PRIVATE ${PROJECT_SOURCE_DIR})

file(STRINGS ${folder}/memory_sanitizer.cc wrapped REGEX "__wrap_[A-Za-z0-9_]+\\(|QVX_WRAP\\(\"")
list(TRANSFORM wrapped REPLACE ".*(__wrap_|QVX_WRAP\\(\")([A-Za-z0-9_]+).*" "-Wl,--wrap=\\2")
target_link_options(qvx_flags INTERFACE ${options} ${wrapped})
target_link_libraries(qvx_flags INTERFACE $<TARGET_OBJECTS:qvx_memory_sanitizer>)
