# The generated test certificates (make-test-certs.sh): the directory
# KORVO_TEST_CERTS_DIR and the target korvo_test_certs that fills it. Included
# by the tests and by the fuzz targets; the first include defines the target.
find_program(KORVO_OPENSSL_EXECUTABLE openssl REQUIRED)
set(KORVO_TEST_CERTS_DIR ${CMAKE_BINARY_DIR}/testcerts)
if(NOT TARGET korvo_test_certs)
  set(_korvo_make_test_certs ${CMAKE_CURRENT_LIST_DIR}/make-test-certs.sh)
  add_custom_command(
    OUTPUT ${KORVO_TEST_CERTS_DIR}/index.txt
    COMMAND ${CMAKE_COMMAND} -E env OPENSSL=${KORVO_OPENSSL_EXECUTABLE}
            bash ${_korvo_make_test_certs} ${KORVO_TEST_CERTS_DIR}
    DEPENDS ${_korvo_make_test_certs}
    COMMENT "Making the test certificates in ${KORVO_TEST_CERTS_DIR}"
    VERBATIM)
  add_custom_target(korvo_test_certs DEPENDS ${KORVO_TEST_CERTS_DIR}/index.txt)
endif()
