# mroute_library(<name> [HEADER_ONLY] SOURCES ... [DEPS ...])
# One static library per subsystem (HEADER_ONLY: an interface library of
# templates), exported as mroute::<name>. Headers are found from the shared
# source root so that includes read "mroute/route/...".
function(mroute_library name)
  cmake_parse_arguments(ARG "HEADER_ONLY" "" "SOURCES;DEPS" ${ARGN})
  set(scope PUBLIC)
  if(ARG_HEADER_ONLY)
    add_library(mroute_${name} INTERFACE)
    set(scope INTERFACE)
  else()
    add_library(mroute_${name} STATIC ${ARG_SOURCES})
  endif()
  add_library(mroute::${name} ALIAS mroute_${name})
  set_target_properties(mroute_${name} PROPERTIES EXPORT_NAME ${name})
  target_include_directories(mroute_${name} ${scope}
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/src>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(mroute_${name} ${scope} cxx_std_20)
  if(ARG_DEPS)
    target_link_libraries(mroute_${name} ${scope} ${ARG_DEPS})
  endif()
  set_property(GLOBAL APPEND PROPERTY MROUTE_LIBRARIES mroute_${name})
endfunction()

# mroute_test(<name> SOURCES ... [DEPS ...] [LABELS ...])
# A GoogleTest executable registered with ctest. Label "concurrency" marks the
# tests that the ThreadSanitizer job runs; target mroute_concurrency_tests
# builds just those. Every test reuses one precompiled GoogleTest header.
function(mroute_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} mroute_testing GTest::gtest GTest::gmock)
  if(TARGET mroute_testing_pch)
    target_precompile_headers(${name} REUSE_FROM mroute_testing_pch)
  endif()
  add_test(NAME ${name} COMMAND ${name})
  if(ARG_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}")
  endif()
  if("concurrency" IN_LIST ARG_LABELS)
    add_dependencies(mroute_concurrency_tests ${name})
  endif()
endfunction()
