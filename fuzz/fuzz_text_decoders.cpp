// libFuzzer entry: TextDecodersInput of decoders_target.cpp.
#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    korvo_fuzz::TextDecodersInput(data, size);
    return 0;
}
