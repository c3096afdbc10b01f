# The inference engine, libonnxruntime.so.1, lies beside the library, which opens it at run time; nothing links to it.
# Taken is the first of: the file KALVRIN_ENGINE; the pinned version, with KALVRIN_FETCH_ENGINE; the system's.

set(KALVRIN_ENGINE "" CACHE FILEPATH "libonnxruntime.so.1 of your own, 1.20 or later")
option(KALVRIN_FETCH_ENGINE "Download the pinned inference engine when CMake runs" ${PROJECT_IS_TOP_LEVEL})

if(KALVRIN_ENGINE)
  set(engine ${KALVRIN_ENGINE})
elseif(KALVRIN_FETCH_ENGINE)
  set(engine_system linux/x64)
  if(KALVRIN_ARCHITECTURE STREQUAL "arm64")
    set(engine_system linux/arm64)
  endif()
  execute_process(COMMAND ${PROJECT_SOURCE_DIR}/scripts/fetch-engine ${engine_system}
                  OUTPUT_VARIABLE engine OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "The inference engine could not be fetched; the lines above say why. "
                        "An engine of your own: cmake -DKALVRIN_ENGINE=/path/to/libonnxruntime.so.1")
  endif()
else()
  find_library(KALVRIN_SYSTEM_ENGINE NAMES libonnxruntime.so.1 onnxruntime)
  mark_as_advanced(KALVRIN_SYSTEM_ENGINE)
  set(engine ${KALVRIN_SYSTEM_ENGINE})
endif()

file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
if(engine AND EXISTS ${engine})
  file(COPY_FILE ${engine} ${PROJECT_BINARY_DIR}/lib/libonnxruntime.so.1 ONLY_IF_DIFFERENT)
elseif(KALVRIN_ENGINE OR KALVRIN_PROGRAMS)
  message(FATAL_ERROR "There is no inference engine at '${engine}'. Set KALVRIN_ENGINE to the path of a "
                      "libonnxruntime.so.1, or KALVRIN_FETCH_ENGINE to ON")
else()
  message(STATUS "kalvrin: no inference engine found. Before the program runs, put libonnxruntime.so.1 (1.20 or "
                 "later) beside libkalvrin.so; or set KALVRIN_ENGINE or KALVRIN_FETCH_ENGINE")
endif()
