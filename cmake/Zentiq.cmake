# Helpers shared by every folder's CMakeLists.txt.
#
# zentiq_library(NAME DEPS...): one library target per folder, built from every
# *.cpp of the folder except programs' entry files (*_main.cpp). A folder
# without sources yet becomes an interface target so that dependants link.
function(zentiq_library name)
  file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  list(FILTER srcs EXCLUDE REGEX "_main\\.cpp$")
  if(srcs)
    add_library(${name} STATIC ${srcs})
    target_link_libraries(${name} PUBLIC ${ARGN})
  else()
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE ${ARGN})
  endif()
endfunction()

# zentiq_tests(NAME LIBS...): one GoogleTest executable per tests/ folder from
# every *.cpp in it (fuzz targets, named fuzz_*.cpp, excluded). Every test case
# is registered with CTest by name. GUI suites run offscreen.
function(zentiq_tests name)
  file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  list(FILTER srcs EXCLUDE REGEX "/fuzz_[^/]*\\.cpp$")
  if(NOT srcs)
    return()
  endif()
  # tests/test_env.cpp sets the environment of every suite (offscreen Qt,
  # where the build folder is, leak suppressions for system libraries).
  add_executable(${name} ${srcs} ${PROJECT_SOURCE_DIR}/tests/test_env.cpp)
  target_compile_definitions(${name} PRIVATE
    ZENTIQ_BUILD_DIR_DEFAULT="${PROJECT_BINARY_DIR}"
    ZENTIQ_SOURCE_DIR_DEFAULT="${PROJECT_SOURCE_DIR}")
  target_link_libraries(${name} PRIVATE ${ARGN} GTest::gtest GTest::gmock GTest::gtest_main
                        Threads::Threads)
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 300)
endfunction()
