// libFuzzer entry: SettingsInput of settings_target.cpp.
#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    korvo_fuzz::SettingsInput(data, size);
    return 0;
}
