#pragma once

#include "logging/ITavikLogger.h"
#include "logging/LoggerConfiguration.h"

namespace TSQ {
namespace Tavik {
namespace Logging {
namespace Internal {

class ITavikLoggerFactory {
public:
    virtual ~ITavikLoggerFactory() = default;
    // A new logger, owned by the caller.
    virtual ITavikLogger* GetInstance(ILoggerConfiguration& configuration, const char* name) = 0;
};

class FileBasedConcurrencyAwareLoggerFactory : public ITavikLoggerFactory {
public:
    explicit FileBasedConcurrencyAwareLoggerFactory(ILoggerConfiguration& configuration)
        : configuration_(configuration) {}
    ITavikLogger* GetInstance(ILoggerConfiguration& configuration, const char* name) override;

private:
    ILoggerConfiguration& configuration_;
};

}  // namespace Internal
}  // namespace Logging
}  // namespace Tavik
}  // namespace TSQ
