# How everything here is compiled: one language level, warnings as errors, no contracted arithmetic,
# one folder for libraries and one for programs.

option(KALVRIN_TESTS "Build the tests (needs GoogleTest and python3-onnx)" OFF)
option(KALVRIN_BENCH "Build the benchmarks (needs Google Benchmark, FFTW and KissFFT)" OFF)
set(KALVRIN_SANITIZER "" CACHE STRING "Instrument everything: address or thread")
set_property(CACHE KALVRIN_SANITIZER PROPERTY STRINGS "" address thread)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)

add_compile_options(-Wall -Wextra -Wpedantic $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local> -Wnon-virtual-dtor -Werror
                    -ffp-contract=off -fstack-protector-strong)
add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)

if(KALVRIN_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer -g1)
  add_link_options(-fsanitize=address,undefined)
elseif(KALVRIN_SANITIZER STREQUAL "thread")
  add_compile_options(-fsanitize=thread -g1)
  add_link_options(-fsanitize=thread)
elseif(KALVRIN_SANITIZER)
  message(FATAL_ERROR "KALVRIN_SANITIZER is address, thread or empty, not '${KALVRIN_SANITIZER}'")
endif()
