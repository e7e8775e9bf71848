# Installation: the module and its helper into the system's PKCS#11 module
# directory (the helper must lie beside the module), and a p11-kit module
# file that makes every p11-kit aware application load the module.
include(GNUInstallDirs)

pkg_get_variable(KORVO_P11KIT_MODULE_PATH p11-kit-1 p11_module_path)
pkg_get_variable(KORVO_P11KIT_MODULE_CONFIGS p11-kit-1 p11_module_configs)
if(NOT KORVO_P11KIT_MODULE_PATH)
  set(KORVO_P11KIT_MODULE_PATH ${CMAKE_INSTALL_FULL_LIBDIR}/pkcs11)
endif()
if(NOT KORVO_P11KIT_MODULE_CONFIGS)
  set(KORVO_P11KIT_MODULE_CONFIGS ${CMAKE_INSTALL_FULL_DATADIR}/p11-kit/modules)
endif()
set(KORVO_PKCS11_MODULE_DIR ${KORVO_P11KIT_MODULE_PATH} CACHE PATH
  "Where the PKCS#11 module and KorvoPerformRsa are installed")
set(KORVO_P11KIT_MODULE_CONFIG_DIR ${KORVO_P11KIT_MODULE_CONFIGS} CACHE PATH
  "Where the p11-kit module file korvo.module is installed")

install(TARGETS Tavik_PKCS11
  LIBRARY DESTINATION ${KORVO_PKCS11_MODULE_DIR} NAMELINK_SKIP)
install(TARGETS KorvoPerformRsa
  RUNTIME DESTINATION ${KORVO_PKCS11_MODULE_DIR})
install(FILES ${CMAKE_CURRENT_LIST_DIR}/korvo.module
  DESTINATION ${KORVO_P11KIT_MODULE_CONFIG_DIR})
