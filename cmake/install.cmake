# Installation: headers, the four libraries, the shell, the message catalogue,
# a pkg-config file and a CMake package (find_package(qx_sr) gives qx_sr::qx_sr).
include(CMakePackageConfigHelpers)

install(TARGETS qx_cu qx_tr qx_pmsg qx_sr EXPORT qx_srTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS qxsr RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES man/qxsr.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES man/qx_sr.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
install(FILES include/qx_types.h include/qx_cu.h include/qx_tr.h include/qx_pmsg.h include/qx_sr.h
              include/qx_sr.hpp
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/nls/C/qx_sr.cat
        DESTINATION ${CMAKE_INSTALL_DATADIR}/qx/nls/C)

install(EXPORT qx_srTargets NAMESPACE qx_sr:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qx_sr)
configure_package_config_file(cmake/qx_srConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/qx_srConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qx_sr)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/qx_srConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qx_srConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/qx_srConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qx_sr)

configure_file(cmake/qx_sr.pc.in ${CMAKE_CURRENT_BINARY_DIR}/qx_sr.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qx_sr.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
