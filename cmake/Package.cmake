# What `cmake --install` lays out: headers, module, import library, the layer or the run-time DLLs, a CMake package and a
# pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME Runtime)
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)  # tests need not be built to lay out the product

set(package_include ${CMAKE_INSTALL_INCLUDEDIR}/qelibaselib-${PROJECT_VERSION_MAJOR})
set(package_cmake ${CMAKE_INSTALL_LIBDIR}/cmake/QelIBaseLib)

# qelibaselib/qelibaselib.h, the header-only lock, and all that the two include; script/check-package compares.
file(STRINGS ${CMAKE_SOURCE_DIR}/cmake/public_headers.txt public_headers REGEX "^[a-z]")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/cmake/public_headers.txt)
foreach(header IN LISTS public_headers)
  cmake_path(GET header PARENT_PATH folder)
  if((header MATCHES "/linux/" AND WIN32) OR (header MATCHES "/windows/" AND NOT WIN32))
    continue()
  endif()
  install(FILES ${CMAKE_SOURCE_DIR}/${header} DESTINATION ${package_include}/${folder}
    COMPONENT Development)
endforeach()

set(package_targets QelIBaseLib)
if(NOT WIN32)
  list(APPEND package_targets QelWin32)
endif()
foreach(target IN LISTS package_targets)
  target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${package_include}>)
  if(NOT WIN32)
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
  endif()
endforeach()
install(TARGETS ${package_targets} EXPORT QelIBaseLibTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development)
install(EXPORT QelIBaseLibTargets NAMESPACE QelIBaseLib:: DESTINATION ${package_cmake} COMPONENT Development)
if(WIN32)
  install(FILES ${CMAKE_BINARY_DIR}/libgcc_s_dw2-1.dll ${CMAKE_BINARY_DIR}/libstdc++-6.dll
                ${CMAKE_BINARY_DIR}/libgomp-1.dll ${CMAKE_BINARY_DIR}/libwinpthread-1.dll
          DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)
  install(FILES ${CMAKE_BINARY_DIR}/QelIBaseLib.def ${import_library}
          DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development)
endif()

configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/QelIBaseLibConfig.cmake.in
  ${CMAKE_BINARY_DIR}/QelIBaseLibConfig.cmake INSTALL_DESTINATION ${package_cmake})
# The size of the host is left to the configuration file, which can say why it refuses.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/QelIBaseLibConfigVersion.cmake
  COMPATIBILITY SameMajorVersion ARCH_INDEPENDENT)
install(FILES ${CMAKE_BINARY_DIR}/QelIBaseLibConfig.cmake ${CMAKE_BINARY_DIR}/QelIBaseLibConfigVersion.cmake
  DESTINATION ${package_cmake} COMPONENT Development)

if(WIN32)
  set(pkg_config_flags "-msse2")
  set(pkg_config_libs "-lQelIBaseLib")
else()
  set(pkg_config_flags "-m32 -msse2")
  set(pkg_config_libs "-m32 -lQelIBaseLib -lQelWin32")
endif()
file(RELATIVE_PATH pkg_config_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${CMAKE_SOURCE_DIR}/cmake/qelibaselib.pc.in ${CMAKE_BINARY_DIR}/qelibaselib.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/qelibaselib.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT Development)
