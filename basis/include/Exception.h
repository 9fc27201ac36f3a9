// basis::Exception and its kinds: exceptions thrown by the foundation itself. Each carries a
// status name (e.g. "kErr_ThreadAcquire") and the source line that threw, on top of what
// keel::Exception records.
//
// Thread safety: value types; distinct objects are independent.
#ifndef BASIS_INCLUDE_EXCEPTION_H
#define BASIS_INCLUDE_EXCEPTION_H

#include <string>

#include "KeelException.h"

namespace basis {

class Exception : public keel::Exception {
public:
    Exception(const std::string& description, unsigned long line, const std::string& statusName,
              Status_t status = kStatus_Unknown);
    Exception(const Exception&) = default;
    Exception& operator=(const Exception&) = default;
    ~Exception() override = default;

    unsigned long getLine() const { return _line; }
    const std::string& getStatusName() const { return _statusName; }

private:
    unsigned long _line;
    std::string _statusName;
};

// Thrown by the lock guards when a lock cannot be taken or released.
class ThreadException : public Exception {
public:
    ThreadException(const std::string& description, unsigned long line,
                    const std::string& statusName);
};

// Thrown by the buffer manager when memory cannot be obtained.
class BufferException : public Exception {
public:
    BufferException(const std::string& description, unsigned long line,
                    const std::string& statusName);
};

}  // namespace basis

#endif  // BASIS_INCLUDE_EXCEPTION_H
