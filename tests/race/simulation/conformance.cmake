# The test that the simulated kernel does what the real one does.

set(conformance_sources
  conformance_events.cpp
  conformance_others.cpp
  conformance_stage.cpp
  conformance_streams.cpp
  conformance_test.cpp
  conformance_worlds.cpp
  kernel_test.cpp)
list(TRANSFORM conformance_sources PREPEND ${CMAKE_CURRENT_LIST_DIR}/)

add_executable(kernel_conformance_test ${conformance_sources} $<TARGET_OBJECTS:simulation_kernel>)
target_link_libraries(kernel_conformance_test PRIVATE house Threads::Threads GTest::gtest_main)
gtest_discover_tests(kernel_conformance_test DISCOVERY_TIMEOUT 60 PROPERTIES LABELS race TIMEOUT 120)
