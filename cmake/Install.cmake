# What `cmake --install` puts where. The programs find the installed catalogues relative to
# their own executable, in <bin>/../share/lidar-utilities/Config: the two folders below must
# keep that relation.
include(GNUInstallDirs)

set(LIDAR_DATA_DIR ${CMAKE_INSTALL_DATAROOTDIR}/lidar-utilities)
set(LIDAR_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/lidar-utilities)
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

install(TARGETS lidarutil lidar-sim lidar-desk RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# A stripped install (the package's) also drops the compilers' version notes, as Debian's own
# packages do.
install(CODE "
    if(CMAKE_INSTALL_DO_STRIP)
        foreach(program lidarutil lidar-sim lidar-desk)
            execute_process(COMMAND \"${CMAKE_OBJCOPY}\" --remove-section=.comment
                \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/\${program}\"
                COMMAND_ERROR_IS_FATAL ANY)
        endforeach()
    endif()")

# The catalogues, by name: Config/ also holds the user's command history when the programs ran
# from a source tree, and that file must never be installed.
install(DIRECTORY Config/varID DESTINATION ${LIDAR_DATA_DIR}/Config
        FILES_MATCHING PATTERN "*.csv")
install(FILES Config/feature_config.csv Config/auth_config.csv Config/README.md
        DESTINATION ${LIDAR_DATA_DIR}/Config)

# The documentation keeps the tree's layout, so that its links to each other and to the
# screenshots still lead somewhere.
file(GLOB LIDAR_DOC_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md)
file(GLOB LIDAR_DOC_PICTURES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/screenshots/*.png)
install(FILES README.md packaging/copyright DESTINATION ${LIDAR_DOC_DIR})
install(FILES ${LIDAR_DOC_PAGES} DESTINATION ${LIDAR_DOC_DIR}/docs)
install(FILES ${LIDAR_DOC_PICTURES} DESTINATION ${LIDAR_DOC_DIR}/docs/screenshots)

# The package's changelog, compressed without name or time stamp so that two builds of one
# version give the same bytes.
find_program(GZIP_EXECUTABLE gzip REQUIRED)
set(LIDAR_CHANGELOG ${PROJECT_BINARY_DIR}/packaging/changelog)
configure_file(packaging/changelog.in ${LIDAR_CHANGELOG} @ONLY)
add_custom_command(OUTPUT ${LIDAR_CHANGELOG}.gz
                   COMMAND ${GZIP_EXECUTABLE} -9nkf ${LIDAR_CHANGELOG}
                   DEPENDS ${LIDAR_CHANGELOG}
                   COMMENT "Compressing the changelog" VERBATIM)
add_custom_target(lidar_changelog ALL DEPENDS ${LIDAR_CHANGELOG}.gz)
install(FILES ${LIDAR_CHANGELOG}.gz DESTINATION ${LIDAR_DOC_DIR})

install(FILES cli/lidarutil.bash DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions
        RENAME lidarutil)
install(FILES packaging/lidar-desk.desktop DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/applications)
install(FILES packaging/lidar-desk.svg
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/icons/hicolor/scalable/apps)

include(${CMAKE_CURRENT_LIST_DIR}/ManPages.cmake)
