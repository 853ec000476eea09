# docs: the API reference of both libraries, in HTML, from the public headers' comments.
#   cmake --build build --target docs    ->  build/docs/html/index.html
# Any Doxygen warning fails the target, so the reference cannot drift from the headers.
find_package(Doxygen)
if(NOT DOXYGEN_FOUND)
    message(STATUS "Doxygen not found: no docs target")
    return()
endif()

set(DOXYGEN_PROJECT_NAME "DataStore")
set(DOXYGEN_PROJECT_BRIEF "Persistence library of a PC diagnostics suite")
set(DOXYGEN_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/docs)
set(DOXYGEN_GENERATE_HTML YES)
set(DOXYGEN_GENERATE_LATEX NO)
set(DOXYGEN_EXTRACT_ALL YES)
set(DOXYGEN_JAVADOC_AUTOBRIEF YES)
set(DOXYGEN_FULL_PATH_NAMES YES)
set(DOXYGEN_STRIP_FROM_PATH ${PROJECT_SOURCE_DIR}/libCommon/include ${PROJECT_SOURCE_DIR}/libDataStore/include)
set(DOXYGEN_STRIP_FROM_INC_PATH ${DOXYGEN_STRIP_FROM_PATH})
set(DOXYGEN_FILE_PATTERNS *.h)
set(DOXYGEN_INPUT_FILTER ${CMAKE_CURRENT_LIST_DIR}/doxygen-filter.sh)
set(DOXYGEN_FILTER_SOURCE_FILES YES)
# Only documented things would otherwise be listed; an undocumented accessor is no error.
set(DOXYGEN_WARN_IF_UNDOCUMENTED NO)
set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)
set(DOXYGEN_QUIET YES)
# std::hash specialisations are declared at global scope; std is not documented here.
set(DOXYGEN_BUILTIN_STL_SUPPORT YES)
set(DOXYGEN_EXCLUDE_SYMBOLS "std::*")
set(DOXYGEN_MACRO_EXPANSION YES)
set(DOXYGEN_EXPAND_ONLY_PREDEF YES)
set(DOXYGEN_PREDEFINED "ZRN_COMMON_API=" "ZRN_DATASTORE_API=")
set(DOXYGEN_USE_MDFILE_AS_MAINPAGE "")

doxygen_add_docs(docs
    ${PROJECT_SOURCE_DIR}/libCommon/include/libCommon
    ${PROJECT_SOURCE_DIR}/libDataStore/include/libDataStore
    COMMENT "API reference (build/docs/html/index.html)"
)
