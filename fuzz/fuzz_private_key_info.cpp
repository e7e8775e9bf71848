// libFuzzer entry: PrivateKeyInfoInput of decoders_target.cpp.
#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    korvo_fuzz::PrivateKeyInfoInput(data, size);
    return 0;
}
