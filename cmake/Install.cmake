# What `cmake --install` puts where. Nothing goes to /etc: the settings that an administrator has edited there are his.

install(TARGETS tarn-collect tarn-report RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES packaging/tarn-collect.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
# The example names no secrets. The copy in /etc will, and gets other permissions there.
install(FILES packaging/tarnhold.ini DESTINATION ${CMAKE_INSTALL_DATADIR}/tarn-collect)
install(FILES schema/tarn.sql schema/functions.sql schema/grants.sql schema/README.md
    DESTINATION ${CMAKE_INSTALL_DATADIR}/tarn-collect/schema)
install(FILES schema/upgrades/0001-figures.sql DESTINATION ${CMAKE_INSTALL_DATADIR}/tarn-collect/schema/upgrades)
install(FILES README.md CHANGELOG.md SECURITY.md LICENSE docs/operations.md docs/privacy.md docs/queries.md docs/report.md
    DESTINATION ${CMAKE_INSTALL_DOCDIR})

# The unit starts the program from where it is installed to, which `cmake --install --prefix` decides last. systemd reads
# lib/systemd/system below /usr and /usr/local, whatever the machine's library folder is called.
install(CODE "
    set(source \"${PROJECT_SOURCE_DIR}/packaging/tarn-collect.service\")
    set(unit \"${PROJECT_BINARY_DIR}/tarn-collect.service\")
    set(binaries \"${CMAKE_INSTALL_BINDIR}\")")
install(CODE [[
    cmake_path(ABSOLUTE_PATH binaries BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE)
    file(READ "${source}" before)
    string(REPLACE "\nExecStart=/usr/bin/tarn-collect\n" "\nExecStart=${binaries}/tarn-collect\n" after "${before}")
    string(FIND "${after}" "\nExecStart=${binaries}/tarn-collect\n" place)
    if(place EQUAL -1)
        message(FATAL_ERROR "${source} does not start /usr/bin/tarn-collect")
    endif()
    file(WRITE "${unit}" "${after}")
    file(INSTALL "${unit}" DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/systemd/system")]])
