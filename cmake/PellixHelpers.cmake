# Shared build settings for every target of the project.

add_library(pellix_warnings INTERFACE)
target_compile_options(pellix_warnings INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wpedantic -Wno-missing-field-initializers>
    $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-Wshadow=local>
    # qCDebug(category) << ... is how Qt means its logging macros to be used; it leaves their
    # variadic part empty, which clang's -Wpedantic reports.
    $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:Clang>>:-Wno-gnu-zero-variadic-macro-arguments>
    $<$<COMPILE_LANGUAGE:C>:-Wall -Wextra -Wpedantic>
    $<$<BOOL:${PELLIX_WERROR}>:-Werror>)

# Adds a top-level component folder when it is enabled and has been filled in.
macro(pellix_add_component folder enabled)
    if(${enabled} AND EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${folder}/CMakeLists.txt)
        add_subdirectory(${folder})
    endif()
endmacro()

# Adds every direct child folder of the current source folder that has a CMakeLists.txt.
# Keeps the parent lists free of edits when a new component folder appears.
function(pellix_add_child_folders)
    file(GLOB children LIST_DIRECTORIES true RELATIVE ${CMAKE_CURRENT_SOURCE_DIR}
         ${CMAKE_CURRENT_SOURCE_DIR}/*)
    list(SORT children)
    foreach(child IN LISTS children)
        if(IS_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/${child}
           AND EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${child}/CMakeLists.txt)
            add_subdirectory(${child})
        endif()
    endforeach()
endfunction()

# pellix_add_test(NAME <name> SOURCES <files...> [LIBS <targets...>] [QT_MAIN] [TSAN]
#                 [LABELS <labels...>] [TIMEOUT <seconds>])
# Builds one GoogleTest binary into the shared output folder and registers every test
# case with CTest separately, so `ctest -j` runs cases in parallel.
#   QT_MAIN  links a main() that creates a QCoreApplication before running the tests.
#   TSAN     marks the binary as threaded: the ThreadSanitizer job runs the tests
#            labelled "threaded" only.
# A discovered test carries at most one label of its own (the discovery step loses list
# separators), so TSAN and LABELS exclude each other. For an area label on every test of a
# folder, use set_property(DIRECTORY PROPERTY LABELS <area>), which adds to both.
function(pellix_add_test)
    cmake_parse_arguments(T "QT_MAIN;TSAN" "NAME;TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
    add_executable(${T_NAME} ${T_SOURCES})
    target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} pellix_warnings GTest::gtest Qt::Core)
    if(T_QT_MAIN)
        target_link_libraries(${T_NAME} PRIVATE pellix_gtest_qt_main)
    else()
        target_link_libraries(${T_NAME} PRIVATE GTest::gtest_main)
    endif()
    set(labels ${T_LABELS})
    if(T_TSAN)
        if(labels)
            message(FATAL_ERROR "pellix_add_test(${T_NAME}): TSAN and LABELS exclude each other; "
                                "label the folder with set_property(DIRECTORY PROPERTY LABELS ...)")
        endif()
        set(labels threaded)
    endif()
    list(LENGTH labels label_count)
    if(label_count GREATER 1)
        message(FATAL_ERROR "pellix_add_test(${T_NAME}): at most one label")
    endif()
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 120)
    endif()
    set(properties TIMEOUT ${T_TIMEOUT})
    if(labels)
        list(APPEND properties LABELS ${labels})
    endif()
    gtest_discover_tests(${T_NAME}
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 60
        PROPERTIES ${properties})
endfunction()
