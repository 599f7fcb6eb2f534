# The concurrency core of the layer as 64-bit code under the thread sanitizer, which knows no 32-bit programs: handles,
# objects and their names, waits, mutexes, threads, regions of memory, open files and their sharing, with the tests of
# these. It is a build of its own (script/build tsan), without the library, whose guard is 32-bit code.
#
# What is 32-bit by nature is left out by file: the faults, and of modules/ all that reads machine code, symbols and
# stacks. platform/untrapped/ stands in its place.
set(core_rooms base files handles memory objects processes text threads)
set(platform ${CMAKE_SOURCE_DIR}/qelibaselib/platform)
list(TRANSFORM core_rooms PREPEND ${platform}/linux/ OUTPUT_VARIABLE core_patterns)
list(TRANSFORM core_patterns APPEND /*.cpp)
file(GLOB core_sources CONFIGURE_DEPENDS ${core_patterns} ${platform}/untrapped/*.cpp)
list(APPEND core_sources
  ${platform}/linux/modules/fork.cpp ${platform}/linux/modules/layer_module.cpp ${platform}/linux/modules/module_list.cpp
  ${platform}/linux/system/clock.cpp ${platform}/linux/system/time_zone.cpp ${platform}/linux/system/user_name.cpp
  ${platform}/linux/system/zone_file.cpp ${platform}/linux/system/zone_rule.cpp)

add_compile_options(-fsanitize=thread)
add_link_options(-fsanitize=thread)

# Objects and no archive: some work by being there, with what they do at the load.
add_library(concurrency_core OBJECT ${core_sources})
target_link_libraries(concurrency_core PUBLIC qel_options)

set(BUILD_GMOCK OFF CACHE INTERNAL "")
set(INSTALL_GTEST OFF CACHE INTERNAL "")
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)

set(test ${CMAKE_SOURCE_DIR}/test)
set(core_tests
  files/sharing files/sharing_linux files/sharing_stress
  memory/mapping memory/mapping_hold memory/view
  objects/concurrent_use_stress objects/mutex objects/namespace_linux objects/object_kill objects/thread objects/wait)
list(TRANSFORM core_tests REPLACE "(.+)" "${test}/platform/\\1_test.cpp")
set(core_support child_process_linux child_role main open_handles_linux own_mounts_linux scratch_folder)
list(TRANSFORM core_support REPLACE "(.+)" "${test}/support/\\1.cpp")
add_executable(core_test ${core_tests} ${core_support})
# The tests have one word for every sanitizer that has the heap and the ends of a process to itself.
target_compile_definitions(core_test PRIVATE QEL_SANITIZE)
target_link_libraries(core_test PRIVATE concurrency_core gtest ${CMAKE_DL_LIBS})
target_precompile_headers(core_test PRIVATE <gtest/gtest.h> ${platform}/win32.h)

# In parts, so that ctest runs them beside each other. The kill test moves its process to shared memory of its own before
# it uses any.
set(parts 3)
foreach(part RANGE 1 ${parts})
  math(EXPR index "${part} - 1")
  add_test(NAME core_test_${part} COMMAND core_test --gtest_filter=-Kill.*)
  set_tests_properties(core_test_${part} PROPERTIES
    ENVIRONMENT "GTEST_TOTAL_SHARDS=${parts};GTEST_SHARD_INDEX=${index}")
endforeach()
add_test(NAME core_kill_test COMMAND core_test --gtest_filter=Kill.*)
