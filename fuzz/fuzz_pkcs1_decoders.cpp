// libFuzzer entry: Pkcs1DecodersInput of decoders_target.cpp.
#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    korvo_fuzz::Pkcs1DecodersInput(data, size);
    return 0;
}
