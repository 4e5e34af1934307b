# Shared compile settings and helpers for the project's targets.

add_library(tarv_warnings INTERFACE)
target_compile_options(tarv_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow)
if(TARV_WERROR)
  target_compile_options(tarv_warnings INTERFACE -Werror)
endif()

if(TARV_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(TARV_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT TARV_SANITIZE STREQUAL "")
  message(FATAL_ERROR "TARV_SANITIZE must be empty, 'address' or 'thread'")
endif()

# Fuzz builds instrument every library for coverage and check memory and
# undefined behaviour on each input; only the fuzz_* executables link the
# fuzzer's own main (fuzz/CMakeLists.txt).
if(TARV_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "TARV_FUZZ needs clang: -DCMAKE_CXX_COMPILER=clang++")
  endif()
  if(NOT TARV_SANITIZE STREQUAL "")
    message(FATAL_ERROR "TARV_FUZZ brings its own sanitizers; leave TARV_SANITIZE empty")
  endif()
  # -O1 and line tables only: quicker to build, and what the sanitizers need
  # for readable reports.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer
                      -O1 -gline-tables-only)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
endif()

# tarv_library(NAME DEPS ...): one static library from every .cpp of the calling folder.
function(tarv_library name)
  cmake_parse_arguments(ARG "" "" "DEPS;PRIVATE_DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(NOT sources)
    # A folder whose code has not been written yet still links as a layer.
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${PROJECT_SOURCE_DIR})
    target_link_libraries(${name} INTERFACE ${ARG_DEPS})
    return()
  endif()
  add_library(${name} STATIC ${sources})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE tarv_warnings ${ARG_PRIVATE_DEPS})
endfunction()

# tarv_tests(FOLDER DEPS ...): one GoogleTest executable from tests/FOLDER/*_test.cpp.
function(tarv_tests folder)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${folder}/*_test.cpp)
  if(NOT sources)
    return()
  endif()
  set(target ${folder}_tests)
  add_executable(${target} ${sources})
  target_link_libraries(${target} PRIVATE ${ARG_DEPS} tarv_test_support GTest::gtest GTest::gtest_main tarv_warnings)
  gtest_discover_tests(${target}
    WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
    # One variable only: a ";" here would split the property list. The test
    # support library knows both folders from the build anyway.
    PROPERTIES ENVIRONMENT "TARV_BINARY_DIR=${PROJECT_BINARY_DIR}"
    DISCOVERY_TIMEOUT 60)
endfunction()
