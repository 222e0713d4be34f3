# The simulated kernel, and the test that it does what the real one does. Included in tests/race.

set(simulated_kernel_sources kernel.cpp kernel_events.cpp kernel_tcp.cpp kernel_udp.cpp kernel_wire.cpp)
list(TRANSFORM simulated_kernel_sources PREPEND ${CMAKE_CURRENT_LIST_DIR}/)

set(conformance_sources
  conformance_events.cpp
  conformance_others.cpp
  conformance_stage.cpp
  conformance_streams.cpp
  conformance_test.cpp
  conformance_worlds.cpp
  kernel_test.cpp
  parking.cpp
  scheduler.cpp)
list(TRANSFORM conformance_sources PREPEND ${CMAKE_CURRENT_LIST_DIR}/)

add_executable(kernel_conformance_test ${conformance_sources} ${simulated_kernel_sources})
target_link_libraries(kernel_conformance_test PRIVATE house Threads::Threads GTest::gtest_main)
gtest_discover_tests(kernel_conformance_test DISCOVERY_TIMEOUT 60 PROPERTIES LABELS race TIMEOUT 120)
