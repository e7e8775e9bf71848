// libFuzzer entry: the DER reader. The body lies in asn1_reader_target.cpp.
#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    korvo_fuzz::Asn1ReaderInput(data, size);
    return 0;
}
