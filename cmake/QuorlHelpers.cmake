# Helpers that make every target of the project the same way.

# Warnings that are errors in our own code only; third-party headers come in as system headers.
function(quorl_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror
    -Wno-unused-parameter -Wno-missing-field-initializers)
endfunction()

# Precompiled Boost.Serialization archive headers: the costliest headers of the project.
set(QUORL_ARCHIVE_PCH
  <boost/archive/binary_oarchive.hpp> <boost/archive/binary_iarchive.hpp>
  <boost/archive/text_oarchive.hpp> <boost/archive/text_iarchive.hpp>
  <boost/archive/xml_oarchive.hpp> <boost/archive/xml_iarchive.hpp>
  <boost/archive/polymorphic_oarchive.hpp> <boost/archive/polymorphic_iarchive.hpp>
  <boost/serialization/export.hpp> <boost/serialization/shared_ptr.hpp>
  <boost/serialization/string.hpp> <boost/serialization/vector.hpp>
  <boost/serialization/nvp.hpp> <boost/serialization/base_object.hpp>)

# quorl_public_headers(FILES ...)
# Installs public headers under the include path they have in the tree: platform/ and the
# repository root are the two include roots. Headers not listed stay private to their library.
function(quorl_public_headers)
  cmake_parse_arguments(Q "" "" "FILES" ${ARGN})
  foreach(f ${Q_FILES})
    get_filename_component(abs ${f} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_SOURCE_DIR})
    if(NOT EXISTS ${abs})
      message(FATAL_ERROR "public header ${abs} does not exist")
    endif()
    string(FIND "${abs}" "${PROJECT_SOURCE_DIR}/platform/" inPlatform)
    if(inPlatform EQUAL 0)
      file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR}/platform ${abs})
    else()
      file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${abs})
    endif()
    get_filename_component(dir ${rel} DIRECTORY)
    install(FILES ${abs} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir})
  endforeach()
endfunction()

# quorl_library(NAME SOURCES ... [HEADERS ...] [DEPENDS ...] [PRIVATE_DEPENDS ...] [ARCHIVES]
#               [EXPORT_NAME n])
# A shared library with the project's defaults, alias quorl::NAME, installed and exported with
# its public HEADERS.
function(quorl_library name)
  cmake_parse_arguments(Q "ARCHIVES;OBJECT" "EXPORT_NAME"
    "SOURCES;HEADERS;DEPENDS;PRIVATE_DEPENDS" ${ARGN})
  quorl_public_headers(FILES ${Q_HEADERS})
  if(Q_OBJECT)
    add_library(${name} OBJECT ${Q_SOURCES})
  else()
    add_library(${name} SHARED ${Q_SOURCES})
  endif()
  add_library(quorl::${name} ALIAS ${name})
  if(Q_EXPORT_NAME)
    set_target_properties(${name} PROPERTIES EXPORT_NAME ${Q_EXPORT_NAME})
  endif()
  target_link_libraries(${name} PUBLIC quorl_defs ${Q_DEPENDS} PRIVATE ${Q_PRIVATE_DEPENDS})
  quorl_warnings(${name})
  if(Q_ARCHIVES)
    target_precompile_headers(${name} PRIVATE ${QUORL_ARCHIVE_PCH})
  endif()
  if(NOT Q_OBJECT)
    set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
    install(TARGETS ${name} EXPORT quorlTargets
      LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
      ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
      RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endfunction()

# quorl_program(NAME SOURCES ... [DEPENDS ...])
# An installed program: bin/NAME, finding the package's libraries in ../lib.
function(quorl_program name)
  cmake_parse_arguments(Q "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${Q_SOURCES})
  target_link_libraries(${name} PRIVATE quorl_defs ${Q_DEPENDS})
  quorl_warnings(${name})
  set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endfunction()

# quorl_test(NAME SOURCES ... [DEPENDS ...] [ARCHIVES] [LABELS ...] [TIMEOUT s])
# A GoogleTest executable registered with CTest, one CTest entry per executable.
function(quorl_test name)
  if(NOT QUORL_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(Q "ARCHIVES" "TIMEOUT" "SOURCES;DEPENDS;LABELS" ${ARGN})
  add_executable(${name} ${Q_SOURCES})
  target_link_libraries(${name} PRIVATE quorl_defs ${Q_DEPENDS} GTest::gtest GTest::gtest_main GTest::gmock)
  quorl_warnings(${name})
  if(Q_ARCHIVES)
    target_precompile_headers(${name} PRIVATE ${QUORL_ARCHIVE_PCH})
  endif()
  if(NOT Q_TIMEOUT)
    set(Q_TIMEOUT 300)
  endif()
  add_test(NAME ${name} COMMAND ${name} --gtest_color=no)
  set_tests_properties(${name} PROPERTIES TIMEOUT ${Q_TIMEOUT}
    ENVIRONMENT "QUORL_SOURCE_DIR=${PROJECT_SOURCE_DIR};QUORL_BINARY_DIR=${PROJECT_BINARY_DIR}")
  if(Q_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${Q_LABELS}")
  endif()
endfunction()

# quorl_benchmark(NAME SOURCES ... [DEPENDS ...])
function(quorl_benchmark name)
  if(NOT QUORL_BUILD_BENCH)
    return()
  endif()
  cmake_parse_arguments(Q "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${Q_SOURCES})
  target_link_libraries(${name} PRIVATE quorl_defs ${Q_DEPENDS} benchmark::benchmark)
  quorl_warnings(${name})
endfunction()
