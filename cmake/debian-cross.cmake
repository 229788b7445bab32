# Builds for another processor with Debian's cross compilers (g++-TRIPLE) and runs what was built in
# qemu-user. ZELVO_PROCESSOR is a row's first word; script/cross builds and tests with it.
set(rows
    "aarch64 aarch64-linux-gnu   qemu-aarch64"
    "armel   arm-linux-gnueabi   qemu-arm"
    "armhf   arm-linux-gnueabihf qemu-arm"
    "i686    i686-linux-gnu      qemu-i386"
    "mipsel  mipsel-linux-gnu    qemu-mipsel"
    "riscv64 riscv64-linux-gnu   qemu-riscv64"
    "s390x   s390x-linux-gnu     qemu-s390x")
list(FILTER rows INCLUDE REGEX "^${ZELVO_PROCESSOR} ")
if(NOT rows)
    message(FATAL_ERROR "ZELVO_PROCESSOR is '${ZELVO_PROCESSOR}', which ${CMAKE_CURRENT_LIST_FILE} does not know")
endif()
string(REGEX REPLACE " +" ";" row "${rows}")
list(GET row 1 triple)
list(GET row 2 emulator)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZELVO_PROCESSOR)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${ZELVO_PROCESSOR})
set(CMAKE_C_COMPILER ${triple}-gcc)
set(CMAKE_CXX_COMPILER ${triple}-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator} -L /usr/${triple})

# Libraries, headers and packages of the machine that builds are none of the target's.
list(APPEND CMAKE_FIND_ROOT_PATH /usr/${triple})
set(ENV{PKG_CONFIG_LIBDIR} /usr/${triple}/lib/pkgconfig)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
