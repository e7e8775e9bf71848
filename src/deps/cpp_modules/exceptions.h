#pragma once
// Exception classes of the certificate, configuration and logging layers.
// Every failure those layers report derives from root_exception, so the
// PKCS#11 layer can catch them all at its boundary.

#include <stdexcept>
#include <string>

class root_exception : public std::runtime_error {
public:
    explicit root_exception(const std::string& message) : std::runtime_error(message) {}
};

// An argument that the callee cannot work with.
class bad_parameter : public root_exception {
public:
    explicit bad_parameter(const std::string& message) : root_exception(message) {}
};

// A read or write outside the bounds of a buffer.
class index_out_of_range : public root_exception {
public:
    explicit index_out_of_range(const std::string& message) : root_exception(message) {}
};
