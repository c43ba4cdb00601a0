# Installs the build into a prefix, moves it, and builds programs that find the library there in three ways.
# Given: BUILD_DIR, SOURCE_DIR (this folder), WORK_DIR, GENERATOR, C_COMPILER, CXX_COMPILER, BUILD_TYPE, LIBDIR.
include(${CMAKE_CURRENT_LIST_DIR}/check.cmake)

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/moved)
run("The installation" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix)
file(RENAME ${WORK_DIR}/prefix ${prefix})
set(expected_record "{\"station\":7,\"celsius\":21.5,\"place\":\"roof\"}\n")

run("The installed program" ${prefix}/bin/qvx_read -f ndjson)
expect("The output of the installed program" "${output}" "No input files specified\n")

# What is there, apart from the headers.
file(GLOB_RECURSE files LIST_DIRECTORIES false RELATIVE ${prefix} ${prefix}/*)
list(FILTER files EXCLUDE REGEX "^include/")
string(REPLACE "${LIBDIR}/" "LIBDIR/" files "${files}")
string(REGEX REPLACE "qvx-targets-[a-z]+\\.cmake" "qvx-targets-TYPE.cmake" files "${files}")
list(SORT files)
list(JOIN files "\n" files)
file(READ ${SOURCE_DIR}/files.txt expected_files)
expect("The installed files" "${files}\n" "${expected_files}")

# Headers: the public ones, which need no other ones of ours.
file(GLOB_RECURSE headers RELATIVE ${prefix}/include ${prefix}/include/*.h)
set(every_header "")
foreach(header IN LISTS headers)
  file(STRINGS ${prefix}/include/${header} includes REGEX "^#include \"")
  foreach(line IN LISTS includes)
    string(REGEX REPLACE "^#include \"(.*)\".*" "\\1" included "${line}")
    if(NOT EXISTS ${prefix}/include/${included})
      message(FATAL_ERROR "${header} includes ${included}, which is not installed: add it to cmake/QvxPublicHeaders.cmake")
    endif()
  endforeach()
  string(APPEND every_header "#include \"${header}\"\n")
endforeach()
foreach(internal reader plan/plan_values.h data/page_memory.h support/number_tables.h support/number_digits.h)
  if(EXISTS ${prefix}/include/qvx/${internal})
    message(FATAL_ERROR "${internal} is internal and was installed")
  endif()
endforeach()
file(WRITE ${WORK_DIR}/every_header.cc "${every_header}int main() {}\n")
run("Compiling every header" ${CXX_COMPILER} -std=c++20 -fsyntax-only -Wall -Wextra -Wpedantic
  -I${prefix}/include ${WORK_DIR}/every_header.cc)

# Nothing that was installed as text names the place that it was installed to or built in.
foreach(file ${LIBDIR}/pkgconfig/qvx.pc ${LIBDIR}/cmake/qvx/qvx-targets.cmake)
  file(READ ${prefix}/${file} text)
  string(FIND "${text}" "${WORK_DIR}" place)
  if(NOT place EQUAL -1)
    message(FATAL_ERROR "${file} names the folder that it was installed to")
  endif()
endforeach()

# find_package, against the shared and the static library.
foreach(target qvx qvx_static)
  run("Configuring against ${target}" ${CMAKE_COMMAND} -G ${GENERATOR} -S ${SOURCE_DIR}/consumer -B ${WORK_DIR}/${target}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    -DCMAKE_BUILD_TYPE=${BUILD_TYPE} -DQVX_TARGET=qvx::${target})
  run("Building against ${target}" ${CMAKE_COMMAND} --build ${WORK_DIR}/${target})
  run("The program on ${target}" ${WORK_DIR}/${target}/print_record)
  expect("The output on ${target}" "${output}" "${expected_record}")
  run("Reading the needed libraries" readelf -d ${WORK_DIR}/${target}/print_record)
  string(FIND "${output}" "[libqvx.so.1]" needed)
  if(target STREQUAL qvx AND needed EQUAL -1)
    message(FATAL_ERROR "The program on qvx::qvx does not need libqvx.so.1:\n${output}")
  elseif(target STREQUAL qvx_static AND NOT needed EQUAL -1)
    message(FATAL_ERROR "The program on qvx::qvx_static needs the shared library")
  endif()
endforeach()

# The C interface.
set(data ${SOURCE_DIR}/../../examples/data)
file(READ ${SOURCE_DIR}/c_consumer/expected.txt expected_list)
run("Building the C program" ${C_COMPILER} -std=c11 -Wall -Wextra -pedantic -Werror -I${prefix}/include
  ${SOURCE_DIR}/c_consumer/list_records.c -o ${WORK_DIR}/list_records -L${prefix}/${LIBDIR} -lqvx
  -Wl,-rpath,${prefix}/${LIBDIR})
execute_process(COMMAND ${WORK_DIR}/list_records ${data}/schema ${data}/events.bin ${data}/counters.bin
  ${data}/metrics.bin ${data}/missing.bin
  OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE result)
string(REPLACE "${data}/" "" output "${output}")
expect("The output of the C program" "${output}" "${expected_list}")
expect("Its status" "${result}" 1)

# pkg-config.
find_program(pkg_config NAMES pkg-config pkgconf)
if(NOT pkg_config)
  message(FATAL_ERROR "pkg-config is not installed")
endif()
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
run("pkg-config" ${pkg_config} --modversion qvx)
expect("The version in the pkg-config file" "${output}" "${VERSION}\n")
run("pkg-config" ${pkg_config} --cflags --libs qvx)
separate_arguments(flags UNIX_COMMAND "${output}")
run("Building with pkg-config" ${CXX_COMPILER} -std=c++20 ${SOURCE_DIR}/consumer/print_record.cc
  -o ${WORK_DIR}/print_record ${flags} -Wl,-rpath,${prefix}/${LIBDIR})
run("The program made with pkg-config" ${WORK_DIR}/print_record)
expect("Its output" "${output}" "${expected_record}")

# Over an older version: the library of another minor stays, everything else is replaced, and old programs run.
set(older ${WORK_DIR}/older)
file(COPY ${prefix}/ DESTINATION ${older})
file(RENAME ${older}/${LIBDIR}/libqvx.so.${VERSION} ${older}/${LIBDIR}/libqvx.so.1.21.0)
file(CREATE_LINK libqvx.so.1.21.0 ${older}/${LIBDIR}/libqvx.so.1 SYMBOLIC)
file(WRITE ${older}/bin/qvx_read "older")
file(WRITE ${older}/include/qvx/support/version.h "#error older")
file(WRITE ${older}/${LIBDIR}/cmake/qvx/qvx-config-version.cmake "message(FATAL_ERROR older)")
run("The installation over an older version" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${older})
file(READ_SYMLINK ${older}/${LIBDIR}/libqvx.so.1 link)
expect("The library that programs load" "${link}" "libqvx.so.${VERSION}")
run("The program that replaced the older one" ${older}/bin/qvx_read -f ndjson)
foreach(file include/qvx/support/version.h ${LIBDIR}/cmake/qvx/qvx-config-version.cmake)
  run("Comparing ${file}" ${CMAKE_COMMAND} -E compare_files ${older}/${file} ${prefix}/${file})
endforeach()
run("A program built before" ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${older}/${LIBDIR} ${WORK_DIR}/print_record)
expect("Its output" "${output}" "${expected_record}")
