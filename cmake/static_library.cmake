# libzelvo.a. A program that links it needs the C++ library, threads and cJSON too, unless that is
# compiled in; both package files say so.
set_target_properties(zelvo PROPERTIES OUTPUT_NAME zelvo)
# The C++ library, whatever its name: a program in C does not link it by itself.
set(ZELVO_CXX_LIBRARIES ${CMAKE_CXX_IMPLICIT_LINK_LIBRARIES})
list(REMOVE_ITEM ZELVO_CXX_LIBRARIES ${CMAKE_C_IMPLICIT_LINK_LIBRARIES})
list(REMOVE_DUPLICATES ZELVO_CXX_LIBRARIES)
target_link_libraries(zelvo INTERFACE ${ZELVO_CXX_LIBRARIES})
if(ZELVO_CJSON_SOURCE)
    target_sources(zelvo PRIVATE $<TARGET_OBJECTS:zelvo_cjson>)
endif()
if(WIN32) # where a program has to know that it links no DLL
    target_compile_definitions(zelvo_modules PUBLIC ZELVO_STATIC)
    target_compile_definitions(zelvo INTERFACE ZELVO_STATIC)
endif()
