# Debian packages, by `cpack -G DEB` in a build folder of the preset `package`; `./dev package` does all of
# it. Each component of the installation is one package.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME norv)
set(CPACK_PACKAGE_VENDOR "")
# Who builds packages for others says whom to write to.
set(NORV_MAINTAINER "the maintainers of norv <maintainers@localhost>" CACHE STRING "Of the packages")
set(CPACK_PACKAGE_CONTACT "${NORV_MAINTAINER}")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# What the programs and libraries need of others; of each other they say it below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENTS_ALL "")
# Each package has a summary of its own; one for all would come before it.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")

# The loader's cache is brought up to date when the libraries come and go.
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LUMO_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
set(CPACK_DEBIAN_NORV_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)

# norv_package(COMPONENT PACKAGE SECTION SUMMARY DESCRIPTION [DEPENDS component...])
function(norv_package component package section summary description)
  cmake_parse_arguments(THE "" "" "DEPENDS" ${ARGN})
  string(TOUPPER ${component} name)
  set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} ${component} PARENT_SCOPE)
  set(CPACK_DEBIAN_${name}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_DEBIAN_${name}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_COMPONENT_${name}_DESCRIPTION "${summary}\n${description}" PARENT_SCOPE)
  set(CPACK_COMPONENT_${name}_DEPENDS ${THE_DEPENDS} PARENT_SCOPE)
  set(documents ${CMAKE_INSTALL_DATADIR}/doc/${package})
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/copyright DESTINATION ${documents} COMPONENT ${component})
  install(FILES ${PROJECT_BINARY_DIR}/changelog.Debian.gz DESTINATION ${documents}
    COMPONENT ${component})
endfunction()

# The changes of each version stand in CHANGELOG.md; here is what Debian's tools read. A version that has no date
# there is not released.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md dated REGEX "^## \\[${PROJECT_VERSION}\\] - ")
if(dated MATCHES "[0-9]+-[0-9]+-[0-9]+$")
  set(distribution unstable)
  set(day ${CMAKE_MATCH_0})
else()
  set(distribution UNRELEASED)
  string(TIMESTAMP day %Y-%m-%d UTC)
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C date --utc --rfc-email --date=${day}
  OUTPUT_VARIABLE date OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(changelog "norv (${PROJECT_VERSION}-1) ${distribution}; urgency=medium

  * The changes of this version are told in CHANGELOG.md, in norv-doc.

 -- ${NORV_MAINTAINER}  ${date}
")
file(WRITE ${PROJECT_BINARY_DIR}/changelog.Debian "${changelog}")
execute_process(COMMAND gzip -9nkf ${PROJECT_BINARY_DIR}/changelog.Debian)

norv_package(lumo liblumo0 libs "Entity framework and trace libraries"
  "Counted objects whose changes are told to reactors, a registry of types, and traces as text and in a ring
 file that survives its process.")
norv_package(norv libnorv0 libs "Connection manager between an agent and a BESS switch daemon"
  "Producers append commands to named queues; they are sent to the daemon over gRPC one at a time, in order,
 and each gets its answer." DEPENDS lumo)
norv_package(dev libnorv-dev libdevel "Headers and static parts of the connection manager"
  "Headers, CMake package and pkg-config files of the library, with the agent's kit, the wanted state and
 the stand-in daemon as static libraries." DEPENDS norv lumo)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libgrpc++-dev, libprotobuf-dev, libyaml-cpp-dev")
norv_package(tools norv-tools net "Command-line tools for a BESS switch daemon"
  "norvctl sends commands, shows a switch and makes it as a document wants it; bessd-standin stands in for
 the daemon; skein reads trace files." DEPENDS norv lumo)
norv_package(norvd norvd net "Agent that keeps a BESS switch as a document wants it"
  "Follows the document and the daemon, repairs what differs, and shows both on a page." DEPENDS norv lumo)
# Pictures are drawn by dot where it is there; status and retry are norvctl's.
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "graphviz")
set(CPACK_DEBIAN_NORVD_PACKAGE_RECOMMENDS "norv-tools, graphviz")
set(service ${PROJECT_SOURCE_DIR}/tools/norvd/service)
set(CPACK_DEBIAN_NORVD_PACKAGE_CONTROL_EXTRA ${service}/postinst ${service}/prerm ${service}/postrm)
norv_package(doc norv-doc doc "Documents of the connection manager and its tools"
  "How to use the library and its tools, and why they are as they are.")
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}-doc/docs COMPONENT doc)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  ${PROJECT_SOURCE_DIR}/CONTRIBUTING.md ${PROJECT_SOURCE_DIR}/SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR}-doc COMPONENT doc)
# Those that are built without the tree.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}-doc/examples
  COMPONENT doc FILES_MATCHING PATTERN "own-messages" EXCLUDE PATTERN "*.cpp" PATTERN "*.yaml" PATTERN "*.jsonl")

option(NORV_COMPRESS_MANUAL "Install the manual pages compressed" OFF)
if(NORV_COMPRESS_MANUAL)
  foreach(page tools:man1 norvd:man8)
    string(REPLACE ":" ";" page ${page})
    list(GET page 0 component)
    list(GET page 1 section)
    install(CODE "file(GLOB pages \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_MANDIR}/${section}/*.[18]\")
      execute_process(COMMAND gzip -9nf \${pages} COMMAND_ERROR_IS_FATAL ANY)" COMPONENT ${component})
  endforeach()
endif()

include(CPack)
