#pragma once

#include <QThread>

namespace TSQ {
namespace Tavik {
namespace Logging {
namespace Internal {

// A thread that only sleeps for the given number of milliseconds. Nothing in
// the module starts one: the library never creates threads.
class Sleeper : public QThread {
public:
    explicit Sleeper(unsigned long milliseconds) : milliseconds_(milliseconds) {}

protected:
    void run() override { QThread::msleep(milliseconds_); }

private:
    unsigned long milliseconds_;
};

}  // namespace Internal
}  // namespace Logging
}  // namespace Tavik
}  // namespace TSQ
