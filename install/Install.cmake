# Installation: the module and its helper into the system's PKCS#11 module
# directory (the helper must lie beside the module), and a p11-kit module
# file that makes every p11-kit aware application load the module, in the
# directories of Paths.cmake. Installed binaries are stripped.
install(CODE "set(CMAKE_INSTALL_DO_STRIP TRUE)")

install(TARGETS Tavik_PKCS11
  LIBRARY DESTINATION ${KORVO_PKCS11_MODULE_DIR} NAMELINK_SKIP)
install(TARGETS KorvoPerformRsa
  RUNTIME DESTINATION ${KORVO_PKCS11_MODULE_DIR})
install(TARGETS korvo-store
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The module file names the installed library by its full path.
configure_file(${CMAKE_CURRENT_LIST_DIR}/korvo.module.in ${CMAKE_BINARY_DIR}/korvo.module.in @ONLY)
file(GENERATE OUTPUT ${CMAKE_BINARY_DIR}/korvo.module INPUT ${CMAKE_BINARY_DIR}/korvo.module.in)
install(FILES ${CMAKE_BINARY_DIR}/korvo.module
  DESTINATION ${KORVO_P11KIT_MODULE_CONFIG_DIR})
install(FILES ${CMAKE_CURRENT_LIST_DIR}/korvo-store.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

include(${CMAKE_CURRENT_LIST_DIR}/Package.cmake)
