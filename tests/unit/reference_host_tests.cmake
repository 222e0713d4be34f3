# The reference host's own tests. Packets are tested on the build that accounts for every part of every packet; what
# hands memory out again is tested on the build that ships.

# reference_host_test(name objects source...): one test program, linked with one build of the reference host's objects.
function(reference_host_test name objects)
  add_executable(${name} ${ARGN} $<TARGET_OBJECTS:${objects}>)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_compile_definitions(${name} PRIVATE
    WIRE_FORMAT_DOCUMENT="${PROJECT_SOURCE_DIR}/docs/wire-format.md"
    SHIPPED_CONFIGURATION="${PROJECT_SOURCE_DIR}/Config/zolt.ini")
  target_link_libraries(${name} PRIVATE house GTest::gtest_main Threads::Threads)
  gtest_discover_tests(${name} TEST_FILTER -pin_* DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit TIMEOUT 60)
  gtest_discover_tests(${name} TEST_FILTER pin_* TEST_LIST ${name}_pins DISCOVERY_TIMEOUT 60
    PROPERTIES LABELS "unit;pin" TIMEOUT 60)
endfunction()

if(can_replace_new)
  reference_host_test(packets_test zolt_reference_host_ledger
    packets_test.cpp inbox_test.cpp ledger_test.cpp wire_format_test.cpp nothrow_memory.cpp)
  target_link_libraries(packets_test PRIVATE relay_test_allocations)
endif()

reference_host_test(runtime_test zolt_reference_host_objects
  runtime_test.cpp output_test.cpp ini_file_test.cpp)

if(NOT INET_RELAY_LEDGER AND can_replace_new)
  reference_host_test(recycler_test zolt_reference_host_objects recycler_test.cpp nothrow_memory.cpp)
  target_link_libraries(recycler_test PRIVATE relay_test_allocations)
endif()
