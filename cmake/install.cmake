# What `cmake --install` lays down: the header, the library, and the two ways to find them. None of
# it names the prefix, so an installed tree can be moved.
include(CMakePackageConfigHelpers)

set(ZELVO_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Zelvo)
set(ZELVO_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES src/bus_client.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zelvo)
get_target_property(type zelvo TYPE)
set(targets ZelvoTargets)
if(type STREQUAL "STATIC_LIBRARY") # both may be installed to one place
    set(targets ZelvoStaticTargets)
endif()
install(TARGETS zelvo EXPORT ${targets}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

if(ZELVO_BUILD_MQTT)
    install(FILES bridges/mqtt/zelvo/mqtt.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zelvo)
    install(TARGETS zelvo-mqtt EXPORT ZelvoMqttTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
    install(EXPORT ZelvoMqttTargets NAMESPACE Zelvo:: DESTINATION ${ZELVO_PACKAGE_DIR})
    export(EXPORT ZelvoMqttTargets NAMESPACE Zelvo::
        FILE ${CMAKE_CURRENT_BINARY_DIR}/ZelvoMqttTargets.cmake)
endif()

# The CMake package, and the same in the build tree: Zelvo_DIR may name either.
install(EXPORT ${targets} NAMESPACE Zelvo:: DESTINATION ${ZELVO_PACKAGE_DIR})
export(EXPORT ${targets} NAMESPACE Zelvo:: FILE ${CMAKE_CURRENT_BINARY_DIR}/${targets}.cmake)
set(ZELVO_CJSON_COMPILED_IN OFF)
if(ZELVO_CJSON_SOURCE)
    set(ZELVO_CJSON_COMPILED_IN ON)
endif()
configure_package_config_file(cmake/ZelvoConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/ZelvoConfig.cmake
    INSTALL_DESTINATION ${ZELVO_PACKAGE_DIR}
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ZelvoConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
        ${CMAKE_CURRENT_BINARY_DIR}/ZelvoConfig.cmake
        ${CMAKE_CURRENT_BINARY_DIR}/ZelvoConfigVersion.cmake
    DESTINATION ${ZELVO_PACKAGE_DIR})

# The pkg-config file. It finds the prefix from where it lies itself: as many steps up as its
# folder is deep. A library directory outside the prefix can't be moved along; it keeps the prefix.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(ZELVO_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
else()
    file(RELATIVE_PATH ZELVO_PC_UP "/${ZELVO_PKGCONFIG_DIR}" "/")
    string(REGEX REPLACE "/$" "" ZELVO_PC_UP "${ZELVO_PC_UP}")
    set(ZELVO_PC_PREFIX "\${pcfiledir}/${ZELVO_PC_UP}")
endif()
# Appending an absolute directory takes the prefix's place.
set(ZELVO_PC_INCLUDEDIR "\${prefix}")
cmake_path(APPEND ZELVO_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
set(ZELVO_PC_LIBDIR "\${prefix}")
cmake_path(APPEND ZELVO_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
get_target_property(ZELVO_PC_NAME zelvo OUTPUT_NAME)
set(ZELVO_PC_CFLAGS "")
set(ZELVO_PC_PRIVATE "")
if(type STREQUAL "STATIC_LIBRARY")
    set(libraries ${ZELVO_CXX_LIBRARIES} ${ZELVO_ATOMIC})
    if(WIN32)
        list(APPEND libraries synchronization)
        set(ZELVO_PC_CFLAGS " -DZELVO_STATIC")
    endif()
    list(TRANSFORM libraries PREPEND "-l")
    # cJSON by its libraries: a Requires.private would hand on its folder of headers.
    if(NOT ZELVO_CJSON_SOURCE)
        list(PREPEND libraries ${ZELVO_CJSON_STATIC_LDFLAGS})
    endif()
    list(JOIN libraries " " libraries)
    set(ZELVO_PC_PRIVATE "Libs.private: ${libraries} -pthread\n")
endif()
configure_file(cmake/zelvo.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zelvo.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelvo.pc DESTINATION ${ZELVO_PKGCONFIG_DIR})
if(ZELVO_BUILD_MQTT)
    configure_file(cmake/zelvo-mqtt.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zelvo-mqtt.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelvo-mqtt.pc DESTINATION ${ZELVO_PKGCONFIG_DIR})
endif()
