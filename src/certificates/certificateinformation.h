#pragma once
// What the certificate-backed token objects take from a certificate. The
// functions throw what X509Certificate::Parse throws when the bytes are not
// a certificate; a null pointer throws bad_parameter. The last certificate
// parsed is remembered, so asking again about the same bytes (the token
// builds several objects from each certificate) does not parse them again.

#include <cstddef>

#include "deps/cpp_modules/ByteArray.h"

class X509Certificate;

// Subject text, "; Gyldigt fra: ", the notBefore date in local time in the
// system locale's short date format; UTF-8 without a terminator.
ByteArray constructLabel(const X509Certificate& certificate);

// Subject and issuer names as DER, the serial number as a DER INTEGER, label.
void getCertificateInformation(const unsigned char* der, size_t length, ByteArray& subject,
                               ByteArray& issuer, ByteArray& serialNumber, ByteArray& label);

// Subject name as DER, complete SubjectPublicKeyInfo DER, label.
void getCertSubjectInformation(const unsigned char* der, size_t length, ByteArray& subject,
                               ByteArray& publicKeyInfo, ByteArray& label);

// The key bytes inside the BIT STRING of a SubjectPublicKeyInfo (after the
// unused-bits octet, which must be 0): for RSA the DER of the RSAPublicKey.
// The result points into `info`. Throws the reader's exceptions.
ByteArray_constSlice spkInfoToBitStringContent(const ByteArray_constSlice& info);
void spkInfoToBitStringContent(const unsigned char* info, size_t length,
                               const unsigned char** content, size_t* contentLength);
