# Precompiled headers: the Qt, standard and GoogleTest headers that nearly every source
# includes are compiled once, into one header for the libraries and plugins and one for
# the tests, and every target of that kind reuses it. GCC only: clang insists that every
# user defines the same macros as the header was built with (the sanitizer and fuzz
# builds use clang and simply build without).
if(NOT QUILLON_PCH OR NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  return()
endif()

set(_pch_dir ${CMAKE_BINARY_DIR}/pch)
file(WRITE ${_pch_dir}/empty.cpp "// the precompiled header's own compile\n")

set(QUILLON_PCH_COMMON <QByteArray> <QDateTime> <QJsonArray> <QJsonDocument> <QJsonObject> <QJsonValue>
    <QList> <QObject> <QString> <QStringList> <functional> <map> <memory> <stdexcept> <vector>)

add_library(quillon_pch_library OBJECT ${_pch_dir}/empty.cpp)
target_link_libraries(quillon_pch_library PRIVATE Qt5::Core)
target_precompile_headers(quillon_pch_library PRIVATE ${QUILLON_PCH_COMMON})
set_target_properties(quillon_pch_library PROPERTIES AUTOMOC OFF)

if(TARGET quillon_test_paths)
  find_package(GTest REQUIRED)
  find_package(Qt5 5.15 REQUIRED COMPONENTS Test)
  add_library(quillon_pch_test OBJECT ${_pch_dir}/empty.cpp)
  target_link_libraries(quillon_pch_test PRIVATE quillon_test_paths GTest::gtest Qt5::Core Qt5::Test)
  target_precompile_headers(quillon_pch_test PRIVATE <gtest/gtest.h> ${QUILLON_PCH_COMMON}
    <QCoreApplication> <QFile> <QProcess> <QTemporaryDir>)
  set_target_properties(quillon_pch_test PROPERTIES AUTOMOC OFF)
endif()

# Every library, plugin and test below the top folder; executables outside tests/ (tools,
# the service's main) have a source or two each and go without.
function(quillon_reuse_pch dir)
  get_property(_targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  string(FIND "${dir}/" "${CMAKE_SOURCE_DIR}/tests/" _in_tests)
  foreach(_target ${_targets})
    get_target_property(_type ${_target} TYPE)
    get_target_property(_off ${_target} DISABLE_PRECOMPILE_HEADERS)
    if(_off OR _target MATCHES "^quillon_pch_")
      continue()
    endif()
    if(_type STREQUAL "EXECUTABLE" AND _in_tests EQUAL 0)
      target_precompile_headers(${_target} REUSE_FROM quillon_pch_test)
    elseif(_type MATCHES "^(STATIC_LIBRARY|MODULE_LIBRARY|SHARED_LIBRARY|OBJECT_LIBRARY)$")
      if(_in_tests EQUAL 0)
        target_precompile_headers(${_target} REUSE_FROM quillon_pch_test)
      else()
        target_precompile_headers(${_target} REUSE_FROM quillon_pch_library)
      endif()
    endif()
  endforeach()
  get_property(_subdirs DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
  foreach(_subdir ${_subdirs})
    quillon_reuse_pch(${_subdir})
  endforeach()
endfunction()
quillon_reuse_pch(${CMAKE_SOURCE_DIR})
