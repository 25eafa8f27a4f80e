# The Debian package, built by scripts/package.sh: tessel_<version>_amd64.deb.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tessel)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Qor Tessel team <tessel@qor.example.com>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "CANopen servo-drive tool for test benches and production lines")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "Tessel reads and writes a drive's object dictionary by SDO, sends NMT and
LSS commands, watches, filters, records and sends CAN frames, loads firmware
through the drive's boot loader, browses EDS files, switches the bench
supplies, reads the fixture boards and the drive's alarm log, and programs
serial numbers.

The package holds the desktop program tessel, its CAN server
qorcalib-server (which runs a simulated bus with simulated drives and a
simulated bench when no hardware is named), tessel-cli for line scripts and
tessel-simdrive, the simulated drive on any QCanBus channel.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://tessel.qor.example.com/")
# The libraries the programs link come from dpkg-shlibdeps; plug-ins loaded at run time do not
# show there: the SQLite driver keeps the serial counter, the PostgreSQL driver serves a line's
# shared counter.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libqt6sql6-sqlite")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "libqt6sql6-psql")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS OFF)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
include(CPack)
