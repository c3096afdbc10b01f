# What a library for Windows needs besides: kalvrin_windows_library(TARGET). Elsewhere it does nothing. Its import library
# TARGET.lib is made once more from TARGET.def, in the one format that all linkers take, Microsoft's too.
function(kalvrin_windows_library target)
  if(NOT WIN32)
    return()
  endif()
  find_program(KALVRIN_DLLTOOL NAMES llvm-dlltool-14 llvm-dlltool REQUIRED)
  set(exports ${PROJECT_BINARY_DIR}/lib/${target}.def)
  set_target_properties(${target} PROPERTIES PREFIX "" IMPORT_PREFIX "" IMPORT_SUFFIX .lib)
  target_link_options(${target} PRIVATE -Wl,--output-def,${exports})
  add_custom_command(TARGET ${target} POST_BUILD BYPRODUCTS ${exports} COMMAND
    ${KALVRIN_DLLTOOL} -m i386:x86-64 -D ${target}.dll -d ${exports} -l $<TARGET_LINKER_FILE:${target}>)
  install(FILES ${exports} DESTINATION ${CMAKE_INSTALL_LIBDIR})
endfunction()
