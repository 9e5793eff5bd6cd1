# What `cmake --install` puts where. Nothing goes to /etc: the settings that an administrator has edited there are his.

install(TARGETS tarn-collect tarn-report RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(PROGRAMS packaging/tarn-collect-setup DESTINATION ${CMAKE_INSTALL_SBINDIR})
foreach(section 1 5 8)
    file(GLOB pages CONFIGURE_DEPENDS packaging/*.${section})
    install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
# The examples name no secrets. The copies in /etc will, and get other permissions there.
install(FILES packaging/tarnhold.ini packaging/report.ini DESTINATION ${CMAKE_INSTALL_DATADIR}/tarn-collect)
install(FILES schema/tarn.sql schema/functions.sql schema/grants.sql schema/README.md
    DESTINATION ${CMAKE_INSTALL_DATADIR}/tarn-collect/schema)
install(FILES schema/upgrades/0001-figures.sql DESTINATION ${CMAKE_INSTALL_DATADIR}/tarn-collect/schema/upgrades)
file(GLOB documents CONFIGURE_DEPENDS docs/*.md)
# The folder has a README.md already.
list(REMOVE_ITEM documents ${PROJECT_SOURCE_DIR}/docs/README.md)
install(FILES README.md CHANGELOG.md SECURITY.md LICENSE ${documents} DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES docs/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} RENAME reading-order.md)
# Sites serve it from there.
install(FILES demo/site/tarn.js DESTINATION ${CMAKE_INSTALL_DATADIR}/tarn-collect)

# systemd reads lib/systemd/system and lib/sysusers.d below /usr and /usr/local, whatever the machine's library folder is
# called. `cmake --install --prefix` decides last which of them it is, and from where the units start the programs.
install(CODE "
    set(sources \"${PROJECT_SOURCE_DIR}/packaging\")
    set(written \"${PROJECT_BINARY_DIR}\")
    set(binaries \"${CMAKE_INSTALL_BINDIR}\")")
install(CODE [[
    cmake_path(ABSOLUTE_PATH binaries BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE)
    foreach(program tarn-collect tarn-report)
        set(unit "${written}/${program}.service")
        file(READ "${sources}/${program}.service" before)
        string(REPLACE "\nExecStart=/usr/bin/${program}" "\nExecStart=${binaries}/${program}" after "${before}")
        string(FIND "${after}" "\nExecStart=${binaries}/${program}" place)
        if(place EQUAL -1)
            message(FATAL_ERROR "${sources}/${program}.service does not start /usr/bin/${program}")
        endif()
        file(WRITE "${unit}" "${after}")
        file(INSTALL "${unit}" DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/systemd/system")
        file(INSTALL DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/sysusers.d" TYPE FILE
            RENAME "${program}.conf" FILES "${sources}/${program}.sysusers")
    endforeach()
    file(INSTALL "${sources}/tarn-report.timer" DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/systemd/system")]])
