#include "logging/LoggerFactory.h"

#include "logging/FileBasedConcurrencyAwareLogger.h"

namespace TSQ {
namespace Tavik {
namespace Logging {
namespace Internal {

ITavikLogger* FileBasedConcurrencyAwareLoggerFactory::GetInstance(ILoggerConfiguration& configuration,
                                                                  const char* name)
{
    return new FileBasedConcurrencyAwareLogger(configuration, name);
}

}  // namespace Internal
}  // namespace Logging
}  // namespace Tavik
}  // namespace TSQ
