# Where the install puts the module, its helper and the p11-kit module file:
# the directories of p11-kit's pkg-config file (package libp11-kit-dev), so
# they are the ones p11-kit reads whatever the install prefix.
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
