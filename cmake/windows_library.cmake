# Zelvo.dll and its import library Zelvo.lib. The export macro of the public header chooses what is
# exported; exports.map only names it again for the import library.
enable_language(RC)
configure_file(cmake/Zelvo.rc.in ${CMAKE_CURRENT_BINARY_DIR}/Zelvo.rc @ONLY)
target_sources(zelvo PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/Zelvo.rc)
set_target_properties(zelvo PROPERTIES
    OUTPUT_NAME Zelvo
    PREFIX ""
    IMPORT_PREFIX ""
    IMPORT_SUFFIX .lib)

# The runtime libraries of the compiler are linked in: the DLL needs those of the system alone.
target_link_options(zelvo PRIVATE -static)

# GNU's linker writes an import library that Microsoft's does not always understand. LLVM's tool
# writes one that both read; without it GNU's stays.
find_program(ZELVO_LLVM_DLLTOOL llvm-dlltool)
if(ZELVO_LLVM_DLLTOOL)
    file(STRINGS src/exports.map names REGEX "busClient")
    list(TRANSFORM names REPLACE "^ *([A-Za-z]+);$" "\\1")
    list(JOIN names "\n" names)
    file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/Zelvo.def "LIBRARY Zelvo.dll\nEXPORTS\n${names}\n")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS src/exports.map)
    add_custom_command(TARGET zelvo POST_BUILD
        COMMAND ${ZELVO_LLVM_DLLTOOL} -m i386:x86-64 -d ${CMAKE_CURRENT_BINARY_DIR}/Zelvo.def
            -l $<TARGET_LINKER_FILE:zelvo>
        VERBATIM)
endif()
