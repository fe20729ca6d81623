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

# fmt, compiled once and not in each file that formats: Debian's own where that was built for the
# same standard library and processor.
function(add_fmt)
    add_header_library(fmt fmt/format.h)
    if(CMAKE_CROSSCOMPILING OR CMAKE_CXX_FLAGS MATCHES "libc\\+\\+")
        add_library(compiled_fmt STATIC ${PROJECT_SOURCE_DIR}/cmake/fmt.cpp)
        target_include_directories(compiled_fmt
            SYSTEM PRIVATE ${PROJECT_BINARY_DIR}/headers)
        target_link_libraries(fmt INTERFACE compiled_fmt)
    else()
        find_library(FMT_LIBRARY fmt REQUIRED)
        target_link_libraries(fmt INTERFACE ${FMT_LIBRARY})
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
