# A module is a folder: every .cpp in it is built into a static library velto_<name>, every *_test.cpp into the program
# <name>_test. The shared libraries that users link are put together from the modules in cmake/CMakeLists.txt.

add_library(velto_options INTERFACE)
target_include_directories(velto_options INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_compile_options(velto_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor)
if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # To the compiler each of the six is a header.
  target_compile_options(velto_options INTERFACE -Wno-subobject-linkage)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(velto_options INTERFACE -Wthread-safety -Werror=thread-safety)
endif()
if(VELTO_SANITIZE)
  target_compile_options(velto_options INTERFACE -fsanitize=${VELTO_SANITIZE} -fno-omit-frame-pointer
                                                 -fno-sanitize-recover=all)
  target_link_options(velto_options INTERFACE -fsanitize=${VELTO_SANITIZE})
endif()

# What nearly every file includes, and the headers given besides, compiled once for all targets that are compiled alike.
function(velto_common_headers name)
  file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/${name}.cpp CONTENT "")
  add_library(${name} OBJECT ${PROJECT_BINARY_DIR}/${name}.cpp)
  target_link_libraries(${name} PRIVATE velto_options Threads::Threads)
  target_precompile_headers(${name} PRIVATE <functional> <map> <memory> <string> <vector>
                            ${PROJECT_SOURCE_DIR}/platform/foundation/Foundation.h ${ARGN})
endfunction()

# With VELTO_PRECOMPILE_HEADERS libraries share compiled headers, and the same builds compile files six at a time
# (CMAKE_UNITY_BUILD): names in the unnamed namespaces of a target differ. Both hide a missing include; the release build
# does neither, and finds it in the libraries.
function(velto_precompile target)
  if(VELTO_PRECOMPILE_HEADERS)
    if(NOT TARGET velto_library_headers)
      velto_common_headers(velto_library_headers)
    endif()
    target_precompile_headers(${target} REUSE_FROM velto_library_headers)
  endif()
endfunction()

# velto_module(NAME [FOLDERS folder...] [DEPENDS library...])
function(velto_module name)
  cmake_parse_arguments(MODULE "" "" "FOLDERS;DEPENDS" ${ARGN})
  if(NOT MODULE_FOLDERS)
    set(MODULE_FOLDERS .)
  endif()
  foreach(folder IN LISTS MODULE_FOLDERS)
    file(GLOB found CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${folder}/*.cpp)
    list(APPEND sources ${found})
  endforeach()
  set(tests ${sources})
  list(FILTER sources EXCLUDE REGEX "_test\\.cpp$")
  list(FILTER tests INCLUDE REGEX "_test\\.cpp$")
  add_library(velto_${name} STATIC ${sources})
  target_link_libraries(velto_${name} PUBLIC velto_options ${MODULE_DEPENDS})
  velto_precompile(velto_${name})
  if(tests AND VELTO_BUILD_TESTS)
    velto_test(${name}_test SOURCES ${tests} DEPENDS velto_${name})
  endif()
endfunction()

# Programs of tests share theirs in every build; those that test the whole have LibraryTest.h among them.
function(velto_precompile_test target depends)
  set(headers velto_test_headers)
  if("velto_test_support" IN_LIST depends)
    set(headers velto_behaviour_test_headers)
    set(common ${PROJECT_SOURCE_DIR}/tests/support/LibraryTest.h)
  endif()
  if(NOT TARGET ${headers})
    velto_common_headers(${headers} <future> <gtest/gtest.h> <thread> ${common})
    target_link_libraries(${headers} PRIVATE GTest::gmock GTest::gtest_main)
    # As programs are compiled.
    set_target_properties(${headers} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
    target_compile_options(${headers} PRIVATE -fPIE)
    velto_unoptimise(${headers})
  endif()
  target_precompile_headers(${target} REUSE_FROM ${headers})
endfunction()

# With sanitizers tests need not be fast themselves, which is a good part of the time that it takes to build them.
function(velto_unoptimise target)
  if(VELTO_SANITIZE)
    target_compile_options(${target} PRIVATE -O0)
  endif()
endfunction()

# velto_test(NAME SOURCES file... [DEPENDS library...]): every test of the program is a test of the suite, run in a
# process of its own.
function(velto_test name)
  cmake_parse_arguments(TEST "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${TEST_SOURCES})
  target_link_libraries(${name} PRIVATE ${TEST_DEPENDS} GTest::gmock GTest::gtest_main)
  velto_unoptimise(${name})
  velto_precompile_test(${name} "${TEST_DEPENDS}")
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
