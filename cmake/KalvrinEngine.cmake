# The inference engine stands beside the library and is opened at run time; nothing links to it.
# KALVRIN_ENGINE points at an ONNX Runtime of your own (1.20 or later); by default the pinned one is
# fetched.

set(KALVRIN_ENGINE "" CACHE FILEPATH "libonnxruntime.so.1 to use; empty: the pinned build is fetched")

if(KALVRIN_ENGINE)
  set(engine ${KALVRIN_ENGINE})
else()
  execute_process(COMMAND ${PROJECT_SOURCE_DIR}/scripts/fetch-engine
                  OUTPUT_VARIABLE engine OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "The inference engine could not be fetched; the lines above say why. "
                        "An engine of your own: cmake -DKALVRIN_ENGINE=/path/to/libonnxruntime.so.1")
  endif()
endif()
if(NOT EXISTS ${engine})
  message(FATAL_ERROR "There is no inference engine at ${engine}")
endif()

file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
file(COPY_FILE ${engine} ${PROJECT_BINARY_DIR}/lib/libonnxruntime.so.1 ONLY_IF_DIFFERENT)
