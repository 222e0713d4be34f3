# zolt-center as its user meets it: the program, run by scripts that also play its peers.

if(NOT TARGET zolt-center)
  return()
endif()
find_package(Python3 COMPONENTS Interpreter REQUIRED)

# Sanitized programs are slow; what they prove does not depend on the size of a file.
set(center_demo_sizes "--udp-size 8M --tcp-size 64M")
if(INET_RELAY_SANITIZE OR INET_RELAY_COVERAGE)
  set(center_demo_sizes "--udp-size 1M --tcp-size 4M")
endif()

set(center_needs_root "")
if(INET_RELAY_SANITIZE MATCHES thread)
  set(center_needs_root "CENTER_NEEDS_ROOT=1")
endif()

# A sanitizer keeps what was freed: nothing is said about memory then.
set(center_is_sanitized "")
if(INET_RELAY_SANITIZE)
  set(center_is_sanitized "CENTER_IS_SANITIZED=1")
endif()

# Further arguments: the test classes of the file to run; all without. 77: not possible here.
function(center_test name file)
  add_test(NAME wire.${name} COMMAND
    ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/${file}.py $<TARGET_FILE:zolt-center> ${ARGN})
  set_tests_properties(wire.${name} PROPERTIES
    LABELS wire TIMEOUT 300 SKIP_RETURN_CODE 77
    ENVIRONMENT "CENTER_DEMO_SIZES=${center_demo_sizes};${center_needs_root};${center_is_sanitized}")
endfunction()

center_test(center_bench center_bench_test)
center_test(center_usage center_usage_test)
center_test(center_config center_config_test)
center_test(center_completion center_completion_test)
center_test(center_explain center_explain_test)
center_test(center_doctor center_doctor_test)
center_test(center_exit_codes center_exit_codes_test)
center_test(center_rights center_rights_test)
center_test(center_traffic center_traffic_test)
center_test(center_demo_with_networks center_demo_test WithNetworks)
center_test(center_demo_without_networks center_demo_test WithoutNetworks)
center_test(center_demo_ending center_demo_test Ending)

# Peers that do what no peer should, and what the others notice of it: nothing.
center_test(hostile_exchange hostile_exchange_test Exchange FromTheDestinationsPort)
center_test(hostile_answer hostile_answer_test)
center_test(hostile_stream_accepted hostile_stream_test Accepted Stopping)
center_test(hostile_stream_outgoing hostile_stream_test Outgoing)
center_test(hostile_datagram hostile_datagram_test)
center_test(hostile_silence hostile_silence_test)
# The undefined-behaviour sanitizer looks at an object's type through a pipe. Without a descriptor for that it takes the
# object for a wrong one and ends the program.
if(NOT INET_RELAY_SANITIZE MATCHES undefined)
  center_test(hostile_descriptors hostile_exchange_test FewDescriptors)
endif()

# What a running Center tells of itself.
center_test(admin admin_test)
center_test(admin_commands admin_commands_test)
center_test(admin_promtool admin_promtool_test)
set_tests_properties(wire.admin_promtool PROPERTIES LABELS "wire;long")

center_test(center_account center_account_test Peers Ends Queues Burst Service)
center_test(center_account_long center_account_test LongEnds)
set_tests_properties(wire.center_account_long PROPERTIES LABELS "wire;long")
# A sanitizer wants to stand before every other library.
if(NOT INET_RELAY_SANITIZE)
  add_library(ended_thread MODULE ended_thread.cpp)
  target_link_libraries(ended_thread PRIVATE house)
  center_test(center_account_threads center_account_test Threads EndedService)
  set_property(TEST wire.center_account_threads APPEND PROPERTY
    ENVIRONMENT "ENDED_THREAD_LIBRARY=$<TARGET_FILE:ended_thread>")
endif()

# What takes long begins first, so that nothing waits for it in the end.
set_tests_properties(wire.hostile_answer PROPERTIES COST 80)
set_tests_properties(wire.center_demo_with_networks PROPERTIES COST 30)
