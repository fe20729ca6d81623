# The libraries that tools and tests use. They come from Debian's packages, as headers or sources
# where they have to work with every compiler, standard library and processor.

find_package(Threads REQUIRED)

# A library of headers only. They are linked into a folder of the build, so that a cross compiler
# does not find the rest of /usr/include.
function(add_header_library target header)
    get_filename_component(folder ${header} DIRECTORY)
    find_path(${target}_DIRECTORY ${header} PATHS /usr/include REQUIRED
        NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
    file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/headers)
    file(CREATE_LINK ${${target}_DIRECTORY}/${folder} ${PROJECT_BINARY_DIR}/headers/${folder}
        SYMBOLIC)
    add_library(${target} INTERFACE)
    target_include_directories(${target} SYSTEM INTERFACE ${PROJECT_BINARY_DIR}/headers)
endfunction()

# A library that is compiled once, and not in each file that uses it. Debian's is for this machine's
# processor, libstdc++ and neither sanitizers nor fuzzers: a build with flags of its own compiles
# cmake/compiled_TARGET.cpp, which has all that the headers declare.
function(add_compiled_library target header library)
    add_header_library(${target} ${header})
    if(CMAKE_CROSSCOMPILING OR CMAKE_CXX_FLAGS)
        add_library(compiled_${target} STATIC ${PROJECT_SOURCE_DIR}/cmake/compiled_${target}.cpp)
        target_include_directories(compiled_${target} SYSTEM PRIVATE ${PROJECT_BINARY_DIR}/headers)
        target_compile_definitions(compiled_${target}
            PRIVATE $<TARGET_PROPERTY:${target},INTERFACE_COMPILE_DEFINITIONS>)
        target_compile_options(compiled_${target}
            PRIVATE $<TARGET_PROPERTY:${target},INTERFACE_COMPILE_OPTIONS>)
        target_link_libraries(${target} INTERFACE compiled_${target})
    else()
        find_library(${target}_LIBRARY ${library} REQUIRED)
        target_link_libraries(${target} INTERFACE ${${target}_LIBRARY})
    endif()
endfunction()

# GoogleTest, built with the same flags as the tests that use it.
function(add_googletest)
    find_path(googletest_DIRECTORY src/gtest-all.cc PATHS /usr/src/googletest/googletest REQUIRED
        NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
    add_library(googletest STATIC
        ${googletest_DIRECTORY}/src/gtest-all.cc
        ${googletest_DIRECTORY}/src/gtest_main.cc)
    target_include_directories(googletest
        SYSTEM PUBLIC ${googletest_DIRECTORY}/include
        PRIVATE ${googletest_DIRECTORY})
    target_compile_options(googletest PRIVATE -w)
    target_link_libraries(googletest PUBLIC Threads::Threads)
endfunction()
