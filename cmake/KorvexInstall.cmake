# What `cmake --install` lays down. Components: library (to run), development (to build against), tool.
include(CMakePackageConfigHelpers)

install(TARGETS korvex EXPORT korvex-targets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT library NAMELINK_COMPONENT development
  RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT library
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/korvex" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  COMPONENT development FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")

set(korvex_package "${CMAKE_INSTALL_LIBDIR}/cmake/korvex")
install(EXPORT korvex-targets NAMESPACE korvex:: DESTINATION "${korvex_package}" COMPONENT development)
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/korvex-config.cmake.in"
  "${PROJECT_BINARY_DIR}/korvex-config.cmake" INSTALL_DESTINATION "${korvex_package}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/korvex-config-version.cmake" COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/korvex-config.cmake" "${PROJECT_BINARY_DIR}/korvex-config-version.cmake"
  DESTINATION "${korvex_package}" COMPONENT development)

# The prefix is known when it is installed, not before.
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(KORVEX_PC_${kind} "${CMAKE_INSTALL_${kind}}")
  else()
    set(KORVEX_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
install(CODE "
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  set(KORVEX_PC_LIBDIR [[${KORVEX_PC_LIBDIR}]])
  set(KORVEX_PC_INCLUDEDIR [[${KORVEX_PC_INCLUDEDIR}]])
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/korvex.pc.in\" \"${PROJECT_BINARY_DIR}/korvex.pc\" @ONLY)
  file(INSTALL \"${PROJECT_BINARY_DIR}/korvex.pc\"
    DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig\")
" COMPONENT development)
