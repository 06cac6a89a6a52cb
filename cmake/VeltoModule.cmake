# A module is a folder: every .cpp in it is built into a static library velto_<name>, every *_test.cpp into the program
# <name>_test. The shared libraries that users link are put together from the modules in cmake/CMakeLists.txt.

add_library(velto_options INTERFACE)
target_include_directories(velto_options INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_compile_options(velto_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(velto_options INTERFACE -Wthread-safety -Werror=thread-safety)
endif()
if(VELTO_SANITIZE)
  target_compile_options(velto_options INTERFACE -fsanitize=${VELTO_SANITIZE} -fno-omit-frame-pointer
                                                 -fno-sanitize-recover=all)
  target_link_options(velto_options INTERFACE -fsanitize=${VELTO_SANITIZE})
endif()

# With VELTO_PRECOMPILE_HEADERS, what nearly every file includes is compiled once per program. It hides a missing include,
# so only builds that are not the first to compile a file use it. The same builds compile the modules' files six at a time
# (CMAKE_UNITY_BUILD): names in a module's unnamed namespaces differ.
function(velto_precompile target)
  if(VELTO_PRECOMPILE_HEADERS)
    target_precompile_headers(${target} PRIVATE ${ARGN})
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
  velto_precompile(velto_${name} <functional> <map> <memory> <string> <vector>
                   ${PROJECT_SOURCE_DIR}/platform/foundation/Foundation.h)
  if(tests AND VELTO_BUILD_TESTS)
    velto_test(${name}_test SOURCES ${tests} DEPENDS velto_${name})
  endif()
endfunction()

# velto_test(NAME SOURCES file... [DEPENDS library...]): every test of the program is a test of the suite, run in a
# process of its own. Tests include nearly the same everywhere, and with sanitizers they need not be fast themselves: both
# are a good half of the time that it takes to build them.
function(velto_test name)
  cmake_parse_arguments(TEST "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${TEST_SOURCES})
  target_link_libraries(${name} PRIVATE ${TEST_DEPENDS} GTest::gmock GTest::gtest_main)
  if("velto_test_support" IN_LIST TEST_DEPENDS)
    set(common ${PROJECT_SOURCE_DIR}/tests/support/LibraryTest.h)
  endif()
  target_precompile_headers(${name} PRIVATE <functional> <future> <gtest/gtest.h> <map> <memory> <string> <thread>
                            <vector> ${PROJECT_SOURCE_DIR}/platform/foundation/Foundation.h ${common})
  if(VELTO_SANITIZE)
    target_compile_options(${name} PRIVATE -O0)
  endif()
  # A test that wants a broker starts it.
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120 ENVIRONMENT VELTO_IPC_DAEMON=)
endfunction()
