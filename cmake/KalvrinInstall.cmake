# What `cmake --install` puts where. Nothing in it holds the prefix, so the tree can be moved.
include(CMakePackageConfigHelpers)

set(KALVRIN_ENGINE_DESTINATION ${KALVRIN_ENGINE_PLACE} CACHE STRING
  "Where the engine is installed: the folder of the libraries, or kalvrin in it")
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/kalvrin)
file(RELATIVE_PATH KALVRIN_PREFIX_FROM_PC
  /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${PROJECT_SOURCE_DIR}/cmake/kalvrin.pc.in ${PROJECT_BINARY_DIR}/kalvrin.pc @ONLY)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kalvrinConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)

install(TARGETS kalvrin EXPORT kalvrin)
install(FILES ${KALVRIN_ENGINE_COPY} DESTINATION ${KALVRIN_ENGINE_DESTINATION})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/kalvrin DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The targets file is the whole configuration: the library needs no other package.
install(EXPORT kalvrin NAMESPACE kalvrin:: FILE kalvrinConfig.cmake DESTINATION ${package})
install(FILES ${PROJECT_BINARY_DIR}/kalvrinConfigVersion.cmake DESTINATION ${package})
install(FILES ${PROJECT_BINARY_DIR}/kalvrin.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(KALVRIN_APP)
  # The VST3 plugin that takes any model, made of links: it lies where hosts look, and has beside it what it needs.
  set(bundle lib/vst3/kalvrin.vst3/Contents/${JUCE_TARGET_ARCHITECTURE}-linux)
  install(CODE "
    set(bundle \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${bundle}\")
    set(up ../../../../..)
    file(MAKE_DIRECTORY \"\${bundle}\")
    file(CREATE_LINK \${up}/${CMAKE_INSTALL_LIBDIR}/kalvrin/kalvrin_vst3.so \"\${bundle}/kalvrin.so\" SYMBOLIC)
    file(CREATE_LINK \${up}/${CMAKE_INSTALL_LIBDIR}/libkalvrin.so.1 \"\${bundle}/libkalvrin.so.1\" SYMBOLIC)
    file(CREATE_LINK \${up}/${KALVRIN_ENGINE_DESTINATION}/libonnxruntime.so.1
      \"\${bundle}/libonnxruntime.so.1\" SYMBOLIC)")
endif()
