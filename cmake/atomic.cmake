# ZELVO_ATOMIC: the library that some processors need for atomic operations on a byte or on eight.
include(CheckCXXSourceCompiles)
set(ZELVO_ATOMIC "")
set(uses_atomics [[
#include <atomic>
#include <cstdint>
std::atomic<bool> flag;
std::atomic<std::uint64_t> number;
int main() { return flag.exchange(true) ? 0 : static_cast<int>(number.fetch_add(1)); }
]])
check_cxx_source_compiles("${uses_atomics}" ZELVO_ATOMICS_LINK)
if(NOT ZELVO_ATOMICS_LINK)
    set(CMAKE_REQUIRED_LIBRARIES atomic)
    check_cxx_source_compiles("${uses_atomics}" ZELVO_ATOMICS_LINK_WITH_LIBRARY)
    unset(CMAKE_REQUIRED_LIBRARIES)
    if(NOT ZELVO_ATOMICS_LINK_WITH_LIBRARY)
        message(FATAL_ERROR "Zelvo needs atomic operations on 1 and 8 bytes, or libatomic")
    endif()
    set(ZELVO_ATOMIC atomic)
endif()
