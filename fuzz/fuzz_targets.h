#pragma once
// The per-input bodies of the fuzz targets. The libFuzzer programs
// (fuzz_<name>) and the corpus replay of the
// normal test suite run the same functions.
//
// Each body catches exactly the exceptions that the code it drives documents
// and lets every other one leave, so the fuzzer or the replay reports it. A
// broken invariant (a slice outside the input, readers that disagree about an
// element) aborts with a message on standard error.

#include <cstddef>
#include <cstdint>

namespace korvo_fuzz {

// Walks the input as a parser does with asn1::Asn1Reader: peeks at and reads
// tags and lengths, reads each element also through GetEncodedValue, GetBytes
// and SkipElement and checks that they agree, and opens constructed values
// with sub-readers down to a fixed depth. True when the whole input is
// well-formed DER of the reader's subset; false when the reader refused it
// with asn1::parse_error or std::out_of_range.
bool Asn1ReaderInput(const uint8_t* data, size_t size);

// OcesCertificate::Parse on the input and, when that succeeds, every getter
// and text form of the result, plus the certificate-information functions the
// token objects use on the same bytes. True when the parse succeeded; false
// when the model refused the bytes with one of its documented exceptions.
bool OcesCertificateInput(const uint8_t* data, size_t size);

// The result a helper's output carries (Tavik_parseHelperOutput). True
// when the output holds one.
bool HelperOutputInput(const uint8_t* data, size_t size);

// The input as text through the hex and base64 decoders, each checked
// against its encoder. True when it is base64.
bool TextDecodersInput(const uint8_t* data, size_t size);

// pkcs8_decode on the input and, for a key it accepts, encoding it again
// and decoding that. True when the input was a key.
bool PrivateKeyInfoInput(const uint8_t* data, size_t size);

// The PKCS #1 decoders: the first input byte chooses version 1.5 padding
// removal, EMSA-PSS verification or EME-OAEP decoding, the next two their
// hashes and parameters, the rest is the encoded block. Each is checked
// against its encoder. True when the block decoded.
bool Pkcs1DecodersInput(const uint8_t* data, size_t size);

// The input as the settings file, read through every getter of the
// configuration. True when it switches the custom proxy on.
bool SettingsInput(const uint8_t* data, size_t size);

// The input as a program of Cryptoki calls on the whole module, over the
// certificate store in $HOME/.korvo (made from the test certificates when
// missing) and the helper beside the program; the invariants are listed in
// call_sequence_target.cpp.
void CallSequenceInput(const uint8_t* data, size_t size);

}  // namespace korvo_fuzz
