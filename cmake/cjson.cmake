# The target zelvo_cjson: the system's cJSON, or one that is compiled in and shows no names.
if(ZELVO_CJSON_SOURCE)
    add_library(zelvo_cjson STATIC ${ZELVO_CJSON_SOURCE}/cJSON.c)
    target_include_directories(zelvo_cjson SYSTEM PUBLIC ${ZELVO_CJSON_SOURCE})
    target_compile_definitions(zelvo_cjson PUBLIC CJSON_HIDE_SYMBOLS)
    set_target_properties(zelvo_cjson PROPERTIES
        POSITION_INDEPENDENT_CODE ON
        C_VISIBILITY_PRESET hidden)
else()
    find_package(PkgConfig REQUIRED)
    pkg_check_modules(ZELVO_CJSON REQUIRED IMPORTED_TARGET GLOBAL libcjson)
    add_library(zelvo_cjson ALIAS PkgConfig::ZELVO_CJSON)
endif()
