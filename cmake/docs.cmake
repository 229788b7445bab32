# The option ZELVO_INSTALL_DOCS: the reference pages for man, made of the header's comments, and docs/. They
# are the same on every system, so a build for another one leaves them out.
option(ZELVO_INSTALL_DOCS "Make the reference pages and install them with docs/" ${PROJECT_IS_TOP_LEVEL})
if(NOT ZELVO_INSTALL_DOCS OR CMAKE_CROSSCOMPILING)
    return()
endif()
find_package(Python3 COMPONENTS Interpreter)
if(NOT Python3_FOUND)
    message(WARNING "no python3, so the reference pages are neither made nor installed")
    return()
endif()
set(maker packaging/reference)
set(pages ${CMAKE_CURRENT_BINARY_DIR}/man)
set_property(DIRECTORY APPEND PROPERTY
    CMAKE_CONFIGURE_DEPENDS ${maker}/pages ${maker}/header.py src/bus_client.h)
execute_process(
    COMMAND ${Python3_EXECUTABLE} -B ${maker}/pages man src/bus_client.h ${PROJECT_VERSION} ${pages}
    WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}
    COMMAND_ERROR_IS_FATAL ANY)
install(DIRECTORY ${pages}/ DESTINATION ${CMAKE_INSTALL_MANDIR})
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/zelvo
    PATTERN "*.csv" EXCLUDE PATTERN "machine.json" EXCLUDE)
