# `cmake --install`: the libraries with their headers, the CMake package `norv` and a pkg-config
# file each. The components are those of the packages, see NorvPackage.cmake.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Installed programs and libraries find each other wherever the prefix is moved.
file(RELATIVE_PATH NORV_BIN_TO_LIB /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set_target_properties(norvctl norvd bessd-standin skein PROPERTIES
  INSTALL_RPATH "$ORIGIN/${NORV_BIN_TO_LIB}")
set_target_properties(lumo norv PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS lumo EXPORT norvTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT lumo NAMELINK_COMPONENT dev)
install(TARGETS bessgrpc norv EXPORT norvTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT norv NAMELINK_COMPONENT dev)
install(TARGETS bess_facts agent state norv_standin EXPORT norvTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(TARGETS norvctl bessd-standin skein RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(TARGETS norvd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT norvd)
install(FILES ${PROJECT_SOURCE_DIR}/tools/skein/skein.1 ${PROJECT_SOURCE_DIR}/standin/bessd-standin.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
foreach(layer framework types client manager agent state standin)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${layer}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT dev)
endforeach()
if(NOT NORV_BESSGRPC)
  install(DIRECTORY ${PROJECT_BINARY_DIR}/protocol/generated/bess DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT dev FILES_MATCHING PATTERN "*.h")
endif()

install(EXPORT norvTargets NAMESPACE norv:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/norv COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/norvConfig.cmake.in
  ${PROJECT_BINARY_DIR}/norvConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/norv)
# As the libraries' SONAMEs say it: what breaks a program that was built against them raises the first number.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/norvConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/norvConfig.cmake ${PROJECT_BINARY_DIR}/norvConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/norv COMPONENT dev)

# From a .pc file up to the prefix, so that an installation may be moved.
file(RELATIVE_PATH NORV_PC_UP /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)

# norv_pkg_config(NAME DESCRIPTION [REQUIRES ...] [PRIVATE ...] [LIBS ...] [CFLAGS ...]): PRIVATE is what the library
# needs and who uses it does not call; LIBS has what has no such file.
function(norv_pkg_config name description)
  cmake_parse_arguments(THE "" "" "REQUIRES;PRIVATE;LIBS;CFLAGS" ${ARGN})
  set(NORV_PC_NAME ${name})
  set(NORV_PC_DESCRIPTION ${description})
  foreach(list REQUIRES PRIVATE LIBS CFLAGS)
    string(JOIN " " NORV_PC_${list} ${THE_${list}})
  endforeach()
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT dev)
endfunction()
set(headers "-I\${includedir}")
set(libraries "-L\${libdir}")
norv_pkg_config(lumo "Entity framework and trace libraries" LIBS ${libraries} -llumo CFLAGS ${headers})
if(NORV_BESSGRPC)
  norv_pkg_config(bessgrpc "Messages and stubs of the switch daemon's control protocol, as the agent has them"
    REQUIRES protobuf PRIVATE grpc++ LIBS ${NORV_BESSGRPC} CFLAGS -I${NORV_BESSGRPC_INCLUDE})
else()
  norv_pkg_config(bessgrpc "Messages and stubs of the switch daemon's control protocol"
    REQUIRES protobuf PRIVATE grpc++ LIBS ${libraries} -lbessgrpc CFLAGS ${headers})
endif()
norv_pkg_config(norv "${PROJECT_DESCRIPTION}" REQUIRES lumo bessgrpc LIBS ${libraries} -lnorv CFLAGS ${headers})
# Static ones: who links them links what they call.
norv_pkg_config(norv_agent "What an agent builds around the manager: outcomes, recovery, a flight recorder"
  REQUIRES norv LIBS ${libraries} -lnorv_agent CFLAGS ${headers})
norv_pkg_config(norv_state "The wanted switch as a document, and the plan towards it"
  REQUIRES norv grpc++ protobuf yaml-cpp LIBS ${libraries} -lnorv_state -lnorv_facts CFLAGS ${headers})
norv_pkg_config(norv_standin "Stand-in for the switch daemon, to run inside a test"
  REQUIRES bessgrpc grpc++ protobuf LIBS ${libraries} -lnorv_standin -lgrpc++_reflection CFLAGS ${headers})
