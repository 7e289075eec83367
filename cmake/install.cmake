# What `cmake --install` puts under the prefix: library, headers, CMake package, pkg-config files.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(mivo_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/mivo)

install(
  TARGETS mivo
  EXPORT mivoTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT mivoTargets NAMESPACE mivo:: DESTINATION ${mivo_package_dir})

# An export set of its own: it names libuv's target, which only those who ask for this component have to have.
install(TARGETS mivo_tcpserver EXPORT mivoTcpserverTargets)
install(EXPORT mivoTcpserverTargets NAMESPACE mivo:: DESTINATION ${mivo_package_dir})

get_target_property(mivo_library_type mivo TYPE)
if(mivo_library_type STREQUAL "STATIC_LIBRARY")
  set(MIVO_IS_STATIC ON)
  set(MIVO_PC_REQUIRES "Requires: libuv >= ${mivo_libuv_minimum}")
  set(MIVO_PC_LIBS "-lmivo -pthread")
else()
  set(MIVO_IS_STATIC OFF)
  # A program that includes <mivo/mivo.h> and links the shared library needs no development files of libuv.
  set(MIVO_PC_REQUIRES "Requires:")
  set(MIVO_PC_LIBS "-lmivo")
endif()

configure_package_config_file(packaging/mivoConfig.cmake.in ${PROJECT_BINARY_DIR}/mivoConfig.cmake
                              INSTALL_DESTINATION ${mivo_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/mivoConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/mivoConfig.cmake ${PROJECT_BINARY_DIR}/mivoConfigVersion.cmake
              ${PROJECT_SOURCE_DIR}/cmake/mivoLibuv.cmake DESTINATION ${mivo_package_dir})

# The prefix is told from where the .pc file lies, so that `cmake --install --prefix` and a moved tree stay right.
# Directories outside the prefix are taken as they are.
function(mivo_pc_directory variable directory)
  if(IS_ABSOLUTE "${directory}")
    set(${variable} "${directory}" PARENT_SCOPE)
  else()
    set(${variable} "\${prefix}/${directory}" PARENT_SCOPE)
  endif()
endfunction()
mivo_pc_directory(MIVO_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
mivo_pc_directory(MIVO_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(MIVO_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH mivo_pc_up "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" mivo_pc_up "${mivo_pc_up}")
  set(MIVO_PC_PREFIX "\${pcfiledir}/${mivo_pc_up}")
endif()
foreach(module mivo mivo-tcpserver)
  configure_file(packaging/${module}.pc.in ${PROJECT_BINARY_DIR}/${module}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${module}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
