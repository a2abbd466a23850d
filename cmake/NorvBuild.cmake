# What every target of the tree shares: the language, the warnings, the output folders, ccache.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)

find_program(NORV_CCACHE ccache)
if(NORV_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${NORV_CCACHE})
endif()

# One of: empty, "address,undefined", "thread".
set(NORV_SANITIZE "" CACHE STRING "Sanitizers to build everything of ours with")
if(NORV_SANITIZE)
  add_compile_options(-fsanitize=${NORV_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${NORV_SANITIZE})
  # As g++ says it: some tests step aside for what the sanitizer itself needs.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND NORV_SANITIZE MATCHES "address")
    add_compile_definitions(__SANITIZE_ADDRESS__)
  endif()
endif()

# Source paths in assertion messages are relative to the tree, whoever built it wherever.
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)

# Our own code: warnings are errors, and in the clang build a breach of a lock annotation is one. With a
# sanitizer in, g++ suspects the standard library's own code of using what it has not set, and with -O3
# its string concatenation of copying within itself.
function(norv_own_code target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Werror
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<CONFIG:Release>>:-Wno-restrict>)
  if(NORV_SANITIZE)
    target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  endif()
endfunction()

# Sources that go to the compiler several at a time: what they include takes longer to read than they do. Not the
# library's, whose objects are as they were written, one by one. The presets for every day have it on; a release and
# the clang build take each source alone, and so see that it includes what it needs. g++ takes it for a header's
# mistake when a class of an included source has a base or member that only that source knows; clang++ for a shadow when
# a name in one source is that of a variable of another one.
option(NORV_TOGETHER "Compile sources of the tools, their libraries and the tests several at a time" OFF)
function(norv_together target)
  set_target_properties(${target} PROPERTIES UNITY_BUILD ${NORV_TOGETHER} UNITY_BUILD_BATCH_SIZE 6)
  if(NORV_TOGETHER)
    target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>
      $<$<CXX_COMPILER_ID:Clang>:-Wno-shadow>)
  endif()
endfunction()

# What a shared library of ours exports is stated, see exports.map, whatever the compiler inlines. For its object
# libraries, too. Nobody replaces a function of a library inside the library: its own calls may be direct. The
# description of its binary interface is taken from its debug information, which has all types.
function(norv_exports library)
  foreach(target ${library} ${ARGN})
    target_compile_options(${target} PRIVATE -fvisibility-inlines-hidden -fno-semantic-interposition
      $<$<CONFIG:RelWithDebInfo>:-g>)
  endforeach()
  target_link_options(${library} PRIVATE LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map)
  set_property(TARGET ${library} APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map)
endfunction()
