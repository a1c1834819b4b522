# Installing for a host: the plug-in library with its SONAME link, the
# host-facing headers in their folders (so that "strings/ktString16.h"
# resolves from <prefix>/include/ktImageExr), ktexr, and a CMake package
# so that a host's build finds it all with find_package(ktImageExr CONFIG).
include(CMakePackageConfigHelpers)

set(KT_INSTALL_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/ktImageExr")
set(KT_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/ktImageExr")

install(TARGETS ktImageExr
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" NAMELINK_COMPONENT Development)

# The records, buffers, strings, time and colour headers a host compiles
# against; the strings' algorithm header is internal to the library.
install(FILES plugin/ktImageExr.h plugin/exrMetadata.h
  DESTINATION "${KT_INSTALL_INCLUDEDIR}/plugin")
foreach(dir records image strings time style)
  file(GLOB headers CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.h")
  list(FILTER headers EXCLUDE REGEX "/ktStringAlgorithms\\.h$")
  if(headers)
    install(FILES ${headers} DESTINATION "${KT_INSTALL_INCLUDEDIR}/${dir}")
  endif()
endforeach()

if(TARGET ktexr)
  install(TARGETS ktexr RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
endif()

configure_package_config_file(cmake/ktImageExrConfig.cmake.in
  "${CMAKE_CURRENT_BINARY_DIR}/ktImageExrConfig.cmake"
  INSTALL_DESTINATION "${KT_INSTALL_CMAKEDIR}"
  PATH_VARS CMAKE_INSTALL_LIBDIR KT_INSTALL_INCLUDEDIR CMAKE_INSTALL_BINDIR)
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/ktImageExrConfigVersion.cmake"
  VERSION "${PROJECT_VERSION}" COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/ktImageExrConfig.cmake"
              "${CMAKE_CURRENT_BINARY_DIR}/ktImageExrConfigVersion.cmake"
  DESTINATION "${KT_INSTALL_CMAKEDIR}")
