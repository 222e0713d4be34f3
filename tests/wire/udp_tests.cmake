# Nodes that talk UDP. The node of the first program is made of the two libraries as they ship; that of the second has
# the host that accounts for every packet part.

function(wire_udp_test name)
  add_executable(${name} ${name}.cpp $<TARGET_OBJECTS:udp_node>)
  target_link_libraries(${name} PRIVATE house inet_relay ${ARGN} GTest::gtest_main Threads::Threads)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES LABELS wire TIMEOUT 120)
endfunction()

wire_udp_test(udp_loopback_test zolt_reference_host)
wire_udp_test(udp_rounds_test zolt_reference_host_ledger)

# Two nodes in two network namespaces; 77 where these are not allowed.
add_executable(udp_hosts_test udp_hosts_test.cpp $<TARGET_OBJECTS:udp_node> network_namespaces.cpp)
target_link_libraries(udp_hosts_test PRIVATE house inet_relay zolt_reference_host GTest::gtest Threads::Threads)
add_test(NAME hosts.udp_membership COMMAND udp_hosts_test)
set_tests_properties(hosts.udp_membership PROPERTIES LABELS hosts TIMEOUT 120 SKIP_RETURN_CODE 77)
