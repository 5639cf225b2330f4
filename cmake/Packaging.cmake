# The Debian package, made by `cpack -G DEB` from a Release build (scripts/package.sh).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lidar-utilities)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "The Lidar Utilities developers")
set(CPACK_PACKAGE_CONTACT "Lidar Utilities Team <lidar-utilities@lists.example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "configure, monitor and upgrade lidars")
# One string: the lines of the long description, each under 80 columns once indented.
string(CONCAT CPACK_PACKAGE_DESCRIPTION
       "Tools to configure a lidar over the network or its serial lines, driven\n"
       "by a catalogue of each model's variables:\n"
       " - lidarutil, a command line that reads and writes the variables, sends\n"
       "   raw commands, downloads logs and upgrades the firmware;\n"
       " - lidar-desk, a window with the same operations and live monitor charts;\n"
       " - lidar-sim, a simulated lidar that answers like the real ones, so that\n"
       "   everything can be tried without hardware.\n"
       "The model catalogues, manual pages and Tab completion come with them.")

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The window's QML modules are loaded at run time: no library dependency names them.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "qml-module-qtquick2, qml-module-qtquick-window2, qml-module-qtquick-controls2, \
qml-module-qtquick-templates2, qml-module-qtquick-layouts, qml-module-qtquick-dialogs, \
qml-module-qtqml-models2, qml-module-qt-labs-platform, qml-module-qtcharts")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS bash-completion)

include(CPack)
