# Parts of zolt-center that stand alone, each test with the sources that it needs.

if(INET_RELAY_CENTER)
  find_package(fmt REQUIRED)

  # reference_center_test(name source...): one test program; sources of the program from the root of the tree.
  function(reference_center_test name)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE house fmt::fmt GTest::gtest_main Threads::Threads)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit TIMEOUT 60)
  endfunction()

  set(center_sources ${PROJECT_SOURCE_DIR}/Reference_Center)
  reference_center_test(latency_test latency_test.cpp
    ${center_sources}/latency_histogram.cpp ${center_sources}/latency_plot.cpp)
  reference_center_test(bench_flights_test bench_flights_test.cpp ${center_sources}/bench_flights.cpp)
  reference_center_test(hand_over_book_test hand_over_book_test.cpp
    ${center_sources}/hand_over_book.cpp ${center_sources}/latency_windows.cpp
    $<TARGET_OBJECTS:zolt_reference_host_objects>)
  reference_center_test(node_account_test latency_windows_test.cpp closed_connections_test.cpp connection_observer_test.cpp
    ${center_sources}/latency_windows.cpp ${center_sources}/closed_connections.cpp
    ${center_sources}/connection_observer.cpp ${center_sources}/socket_facts.cpp
    $<TARGET_OBJECTS:zolt_reference_host_objects>)
endif()
