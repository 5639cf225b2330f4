# The manual pages, made at build time by help2man from each program's --help and --version,
# so that they never say less than the programs do. The sanitizer and fuzzing builds leave them
# out: their programs are not installed, and running them at build time only slows those builds.
find_program(HELP2MAN_EXECUTABLE help2man)
set(LIDAR_MANPAGES_DEFAULT OFF)
if(HELP2MAN_EXECUTABLE AND NOT LIDAR_SANITIZE AND NOT LIDAR_BUILD_FUZZ)
    set(LIDAR_MANPAGES_DEFAULT ON)
endif()
option(LIDAR_BUILD_MANPAGES "Make the manual pages with help2man" ${LIDAR_MANPAGES_DEFAULT})
if(LIDAR_BUILD_MANPAGES AND NOT HELP2MAN_EXECUTABLE)
    message(FATAL_ERROR "LIDAR_BUILD_MANPAGES needs help2man (apt-get install help2man)")
endif()

set(LIDAR_MAN_INCLUDE ${PROJECT_SOURCE_DIR}/packaging/lidar-utilities.h2m)

# lidar_man_page(TARGET "NAME line"): TARGET.1.gz from the program TARGET builds.
function(lidar_man_page target name)
    set(page ${PROJECT_BINARY_DIR}/man/${target}.1)
    # The date on the page: the release's when one is given, for pages that two builds make alike.
    set(date_env)
    if(DEFINED ENV{SOURCE_DATE_EPOCH})
        set(date_env SOURCE_DATE_EPOCH=$ENV{SOURCE_DATE_EPOCH})
    endif()
    # The window prints its help without a display on the offscreen platform; the others ignore it.
    add_custom_command(
        OUTPUT ${page}.gz
        COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
        COMMAND ${CMAKE_COMMAND} -E env ${date_env} QT_QPA_PLATFORM=offscreen
                ${HELP2MAN_EXECUTABLE} --no-info --section=1 --name=${name}
                --source=lidar-utilities "--manual=User Commands" --include=${LIDAR_MAN_INCLUDE}
                --output=${page} $<TARGET_FILE:${target}>
        COMMAND ${GZIP_EXECUTABLE} -9nf ${page}
        DEPENDS ${target} ${LIDAR_MAN_INCLUDE}
        COMMENT "Making the manual page of ${target}" VERBATIM)
    add_custom_target(${target}_man ALL DEPENDS ${page}.gz)
    install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endfunction()

if(LIDAR_BUILD_MANPAGES)
    lidar_man_page(lidarutil "configure, read and upgrade a lidar from the command line")
    lidar_man_page(lidar-sim "a simulated lidar for tests and demonstrations")
    lidar_man_page(lidar-desk "the lidar configuration window")
endif()
