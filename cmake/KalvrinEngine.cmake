# The inference engine lies beside the library, which opens it at run time; nothing links to it. Taken is the first of:
# the file KALVRIN_ENGINE; the pinned version, with KALVRIN_FETCH_ENGINE; the system's.

if(WIN32)
  set(KALVRIN_ENGINE_NAME onnxruntime.dll)
  set(KALVRIN_ENGINE_PLACE ${CMAKE_INSTALL_BINDIR})
  set(engine_folder ${PROJECT_BINARY_DIR}/bin)
  set(engine_system win32/x64)
else()
  set(KALVRIN_ENGINE_NAME libonnxruntime.so.1)
  set(KALVRIN_ENGINE_PLACE ${CMAKE_INSTALL_LIBDIR})
  set(engine_folder ${PROJECT_BINARY_DIR}/lib)
  set(engine_system linux/x64)
  if(KALVRIN_ARCHITECTURE STREQUAL "arm64")
    set(engine_system linux/arm64)
  endif()
endif()
set(KALVRIN_ENGINE "" CACHE FILEPATH "${KALVRIN_ENGINE_NAME} of your own, 1.20 or later")
option(KALVRIN_FETCH_ENGINE "Download the pinned inference engine when CMake runs" ${PROJECT_IS_TOP_LEVEL})

if(KALVRIN_ENGINE)
  set(engine ${KALVRIN_ENGINE})
elseif(KALVRIN_FETCH_ENGINE)
  execute_process(COMMAND ${PROJECT_SOURCE_DIR}/scripts/fetch-engine ${engine_system}
                  OUTPUT_VARIABLE engine OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "The inference engine could not be fetched; the lines above say why. "
                        "An engine of your own: cmake -DKALVRIN_ENGINE=/path/to/${KALVRIN_ENGINE_NAME}")
  endif()
else()
  find_library(KALVRIN_SYSTEM_ENGINE NAMES ${KALVRIN_ENGINE_NAME} onnxruntime)
  mark_as_advanced(KALVRIN_SYSTEM_ENGINE)
  set(engine ${KALVRIN_SYSTEM_ENGINE})
endif()

file(MAKE_DIRECTORY ${engine_folder})
set(KALVRIN_ENGINE_COPY ${engine_folder}/${KALVRIN_ENGINE_NAME})
if(engine AND EXISTS ${engine})
  file(COPY_FILE ${engine} ${KALVRIN_ENGINE_COPY} ONLY_IF_DIFFERENT)
elseif(KALVRIN_ENGINE OR KALVRIN_PROGRAMS)
  message(FATAL_ERROR "There is no inference engine at '${engine}'. Set KALVRIN_ENGINE to the path of a "
                      "${KALVRIN_ENGINE_NAME}, or KALVRIN_FETCH_ENGINE to ON")
else()
  message(STATUS "kalvrin: no inference engine found. Before the program runs, put ${KALVRIN_ENGINE_NAME} (1.20 or "
                 "later) beside the library; or set KALVRIN_ENGINE or KALVRIN_FETCH_ENGINE")
endif()
