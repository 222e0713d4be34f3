# Programs that link the relay's objects otherwise than the tests of each operation do.

# The five event threads alone: everything that they call is the test's.
if(can_replace_new)
  add_executable(event_thread_memory_test event_thread_memory_test.cpp
    $<FILTER:$<TARGET_OBJECTS:inet_relay_objects>,INCLUDE,epoll_thread_>)
  target_link_libraries(event_thread_memory_test PRIVATE house relay_test_allocations GTest::gtest_main Threads::Threads)
  gtest_discover_tests(event_thread_memory_test DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit TIMEOUT 60)
endif()

# The scripted host, and the two operators that end an object.
relay_unit_test(ending_record_test ending_record_test.cpp)
target_link_options(ending_record_test PRIVATE -Wl,--wrap=_ZdlPv -Wl,--wrap=_ZdlPvm)

# The reference host, and the calls that are handed an address.
reference_host_test(whole_node_test zolt_reference_host_objects
  whole_node_test.cpp $<TARGET_OBJECTS:inet_relay_objects>)
target_link_options(whole_node_test PRIVATE -Wl,--wrap=bind -Wl,--wrap=accept -Wl,--wrap=getsockname
  -Wl,--wrap=_ZN4Zolt17struct_tcp_headerC1Ev)

# A live relay and the thresholds of docs/known-limits.md. One of them takes a minute.
add_executable(limits_test limits_test.cpp $<TARGET_OBJECTS:live_relay> $<TARGET_OBJECTS:inet_relay_objects>)
target_link_libraries(limits_test PRIVATE relay_test_support GTest::gtest_main)
gtest_discover_tests(limits_test TEST_FILTER -limits_long.* DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit TIMEOUT 60)
add_test(NAME unit.limits_long COMMAND limits_test --gtest_filter=limits_long.*)
set_tests_properties(unit.limits_long PROPERTIES LABELS "unit;long" TIMEOUT 120)
