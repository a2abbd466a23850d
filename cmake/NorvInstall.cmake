# `cmake --install`: the libraries with their headers, the CMake package `norv` and a pkg-config
# file each. The components are those of the packages, see NorvPackage.cmake.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Whoever links these compiles as they were.
foreach(library lumo bessgrpc norv agent state norv_standin)
  target_compile_features(${library} PUBLIC cxx_std_20)
endforeach()

# Installed programs and libraries find each other wherever the prefix is moved.
file(RELATIVE_PATH NORV_BIN_TO_LIB /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set_target_properties(norvctl norvd bessd-standin skein PROPERTIES
  INSTALL_RPATH "$ORIGIN/${NORV_BIN_TO_LIB}")
set_target_properties(lumo bessgrpc norv PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS lumo EXPORT norvTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT lumo NAMELINK_COMPONENT dev)
install(TARGETS bessgrpc norv EXPORT norvTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT norv NAMELINK_COMPONENT dev)
install(TARGETS bess_facts agent state norv_standin EXPORT norvTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(TARGETS norvctl bessd-standin skein RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(TARGETS norvd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT norvd)
foreach(layer framework types client manager agent state standin)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${layer}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT dev)
endforeach()
install(DIRECTORY ${PROJECT_BINARY_DIR}/protocol/generated/bess DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT dev FILES_MATCHING PATTERN "*.h")

install(EXPORT norvTargets NAMESPACE norv:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/norv COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/norvConfig.cmake.in
  ${PROJECT_BINARY_DIR}/norvConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/norv)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/norvConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/norvConfig.cmake ${PROJECT_BINARY_DIR}/norvConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/norv COMPONENT dev)

# From a .pc file up to the prefix, so that an installation may be moved.
file(RELATIVE_PATH NORV_PC_UP /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)

function(norv_pkg_config name description requires)
  set(NORV_PC_NAME ${name})
  set(NORV_PC_DESCRIPTION ${description})
  set(NORV_PC_REQUIRES ${requires})
  set(NORV_PC_MORE ${ARGN})  # Libraries that have no such file.
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT dev)
endfunction()
norv_pkg_config(lumo "Entity framework and trace libraries" "")
norv_pkg_config(bessgrpc "Messages and stubs of the switch daemon's control protocol"
  "grpc++ protobuf")
norv_pkg_config(norv "${PROJECT_DESCRIPTION}" "lumo bessgrpc")
norv_pkg_config(norv_state "The wanted switch as a document, and the plan towards it"
  "norv grpc++ protobuf yaml-cpp" -lnorv_facts)
norv_pkg_config(norv_standin "Stand-in for the switch daemon, to run inside a test"
  "bessgrpc grpc++ protobuf" -lgrpc++_reflection)
