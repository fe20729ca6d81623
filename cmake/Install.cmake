# What `cmake --install` puts in place: the library with its public headers, a CMake package and a
# pkg-config file; on a desktop also the platform that the library is linked with, and the command
# with its manual page, its completion for bash and its sample files. The component "desktop" is the
# platform's header, with which a program can see what the service is told.

include(CMakePackageConfigHelpers)

set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/TarvoCameraFrameBoost)
# In a folder of this project's own, as "host" is a common name. It is included as in this project.
set(desktop_include_directory ${CMAKE_INSTALL_INCLUDEDIR}/tarvocameraframeboost)

set_target_properties(tarvocameraframeboost PROPERTIES INSTALL_RPATH $ORIGIN)
install(TARGETS tarvocameraframeboost EXPORT TarvoCameraFrameBoostTargets)
install(FILES
    cameraframeboost/tarvocameraframeboost.h
    cameraframeboost/tarvocameraframeboostutils.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/cameraframeboost)
if(NOT ANDROID)
    set_target_properties(tarvodesktop PROPERTIES EXPORT_NAME desktop)
    install(TARGETS tarvodesktop EXPORT TarvoCameraFrameBoostTargets
        INCLUDES DESTINATION ${desktop_include_directory})
    install(FILES host/desktop.h COMPONENT desktop DESTINATION ${desktop_include_directory}/host)
endif()

install(EXPORT TarvoCameraFrameBoostTargets
    NAMESPACE TarvoCameraFrameBoost::
    DESTINATION ${package_directory})
# HALs hold the object by value: another minor version may have changed its size.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TarvoCameraFrameBoostConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
configure_package_config_file(cmake/TarvoCameraFrameBoostConfig.cmake.in
    ${PROJECT_BINARY_DIR}/TarvoCameraFrameBoostConfig.cmake
    INSTALL_DESTINATION ${package_directory}
    PATH_VARS desktop_include_directory)
install(FILES
    ${PROJECT_BINARY_DIR}/TarvoCameraFrameBoostConfig.cmake
    ${PROJECT_BINARY_DIR}/TarvoCameraFrameBoostConfigVersion.cmake
    DESTINATION ${package_directory})

file(RELATIVE_PATH PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/tarvocameraframeboost.pc.in tarvocameraframeboost.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarvocameraframeboost.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET cameraframeboost)
    file(RELATIVE_PATH from_bin_to_lib /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CMAKE_INSTALL_LIBDIR})
    set_target_properties(cameraframeboost PROPERTIES INSTALL_RPATH $ORIGIN/${from_bin_to_lib})
    install(TARGETS cameraframeboost)
    # Not there in builds for other processors without an emulator.
    install(FILES ${PROJECT_BINARY_DIR}/tools/cameraframeboost.1 OPTIONAL
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    install(FILES tools/command/completion.bash RENAME cameraframeboost
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
    install(FILES host/sample_configuration.toml docs/account.schema.json
        DESTINATION ${CMAKE_INSTALL_DATADIR}/tarvocameraframeboost)
    install(PROGRAMS examples/fleet/fleet.py
        DESTINATION ${CMAKE_INSTALL_DATADIR}/tarvocameraframeboost/fleet)
    install(DIRECTORY examples/cameras examples/configurations examples/sessions
        DESTINATION ${CMAKE_INSTALL_DATADIR}/tarvocameraframeboost)
endif()
