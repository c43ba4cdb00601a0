# qvx_build_time(<variable> <format>): the time of the source, as string(TIMESTAMP) writes it, in UTC. It comes from
# SOURCE_DATE_EPOCH, the commit or the archive, never from the clock, so that the same source builds to the same bytes.
# Empty when none of them tells.
function(qvx_build_time variable format)
  set(epoch "$ENV{SOURCE_DATE_EPOCH}")
  if(NOT epoch AND EXISTS ${PROJECT_SOURCE_DIR}/.git)
    find_package(Git QUIET)
    if(GIT_FOUND)
      execute_process(COMMAND ${GIT_EXECUTABLE} -C ${PROJECT_SOURCE_DIR} log -1 --format=%ct
        OUTPUT_VARIABLE epoch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    endif()
  elseif(NOT epoch)
    # Filled in by git archive.
    file(STRINGS ${PROJECT_SOURCE_DIR}/cmake/source_epoch.txt epoch REGEX "^[0-9]+$")
  endif()
  set(time "")
  if(epoch)
    set(saved "$ENV{SOURCE_DATE_EPOCH}")
    set(ENV{SOURCE_DATE_EPOCH} ${epoch})
    string(TIMESTAMP time "${format}" UTC)
    set(ENV{SOURCE_DATE_EPOCH} "${saved}")
  endif()
  set(${variable} "${time}" PARENT_SCOPE)
endfunction()
