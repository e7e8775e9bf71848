# The Debian package (cpack -G DEB in the build directory): the module, its
# helper, the p11-kit module file, korvo-store and its manual page. The
# dependencies are worked out by dpkg-shlibdeps from the binaries.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME korvo-token)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Korvo token developers")
set(CPACK_PACKAGE_CONTACT "Korvo token developers <korvo-token@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "PKCS#11 module of the Korvo token (signature certificates)")
set(CPACK_PACKAGE_DESCRIPTION "The Korvo token's PKCS#11 (Cryptoki 2.20) module shows one token whose\n\
objects mirror the certificate files in the user's home; private-key\n\
operations run the helper KorvoPerformRsa beside the module. Registered\n\
with p11-kit, so p11-kit-aware applications load it.")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "p11-kit, p11-kit-modules")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The module's directories are absolute (p11-kit's own); everything else
# goes below /usr.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
include(CPack)
