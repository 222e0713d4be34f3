# The manual pages and the completion scripts, made by the program that they describe. Only the packages need them, so
# nobody else waits for them.

option(INET_RELAY_MANUAL "make and install the manual pages and completion scripts" OFF)
if(NOT INET_RELAY_MANUAL OR NOT TARGET zolt-center)
  return()
endif()
find_package(Python3 3.9 REQUIRED COMPONENTS Interpreter)

set(made ${PROJECT_BINARY_DIR}/manual)
set(completions
  bash ${CMAKE_INSTALL_DATADIR}/bash-completion/completions zolt-center
  zsh ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions _zolt-center
  fish ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d zolt-center.fish)
set(make_completions "")
while(completions)
  list(POP_FRONT completions shell place name)
  list(APPEND make_completions COMMAND ${CMAKE_COMMAND} -E make_directory ${made}/${shell}
    COMMAND zolt-center completion ${shell} > ${made}/${shell}/${name})
  install(FILES ${made}/${shell}/${name} DESTINATION ${place})
endwhile()

file(GLOB parts CONFIGURE_DEPENDS packaging/manual/parts/*.roff)
set(told_by ${PROJECT_SOURCE_DIR}/Center/INet_Relay/EPoll/inet_relay_epoll.hpp
  ${PROJECT_SOURCE_DIR}/Reference_Center/messages.txt)
set(make_pages ${PROJECT_SOURCE_DIR}/packaging/manual/make_pages.py)
add_custom_command(OUTPUT ${made}/stamp VERBATIM
  ${make_completions}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${made}/man
  COMMAND Python3::Interpreter -B ${make_pages} $<TARGET_FILE:zolt-center> ${PROJECT_SOURCE_DIR} ${made}/man
  COMMAND ${CMAKE_COMMAND} -E touch ${made}/stamp
  DEPENDS zolt-center ${told_by} ${make_pages} ${parts})
add_custom_target(manual ALL DEPENDS ${made}/stamp)

foreach(section 1 3 5 7)
  install(DIRECTORY ${made}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} FILES_MATCHING PATTERN *.${section})
endforeach()
