# The libraries around the one that ships. They come from Debian's packages, in a form that serves
# every compiler, standard library and processor: headers or sources, never binaries.

find_package(Threads REQUIRED)

# A library of headers alone. Only its own headers are let in, through a folder of the build: a cross
# compiler must not find the rest of /usr/include.
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

# GoogleTest, built like the tests that use it.
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
