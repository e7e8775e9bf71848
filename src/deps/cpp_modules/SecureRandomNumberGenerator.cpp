#include "deps/cpp_modules/SecureRandomNumberGenerator.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "deps/cpp_modules/exceptions.h"

void SecureRandomNumberGenerator::fill(uint8_t* buffer, size_t length)
{
    if (length == 0) return;
    if (!buffer) throw bad_parameter("SecureRandomNumberGenerator: null buffer");
    const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw root_exception("SecureRandomNumberGenerator: cannot open /dev/urandom");
    size_t done = 0;
    while (done < length) {
        const ssize_t n = ::read(fd, buffer + done, length - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ::close(fd);
            throw root_exception("SecureRandomNumberGenerator: cannot read /dev/urandom");
        }
        done += size_t(n);
    }
    ::close(fd);
}

ByteArray SecureRandomNumberGenerator::getBytes(size_t length)
{
    ByteArray bytes(length);
    fill(bytes.data(), length);
    return bytes;
}
