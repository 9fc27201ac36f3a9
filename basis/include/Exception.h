/// @file
/// basis::Exception and its kinds: exceptions thrown by the foundation itself. Each carries a
/// status name (e.g. "kErr_ThreadAcquire") and the source line that threw, on top of what
/// keel::Exception records.
///
/// Thread safety: value types; distinct objects are independent.
#ifndef BASIS_INCLUDE_EXCEPTION_H
#define BASIS_INCLUDE_EXCEPTION_H

#include <string>

#include "KeelException.h"

namespace basis {

/// The base of the foundation's exceptions (see the file comment).
class Exception : public keel::Exception {
public:
    /// `line`: the source line that threw; `statusName`: the status, spelt as in the code.
    Exception(const std::string& description, unsigned long line, const std::string& statusName,
              Status_t status = kStatus_Unknown);
    ///@{
    /// A plain copy.
    Exception(const Exception&) = default;
    Exception& operator=(const Exception&) = default;
    ///@}
    ~Exception() override = default;

    /// The source line that threw.
    unsigned long getLine() const { return _line; }
    /// The status name, such as "kErr_ThreadAcquire".
    const std::string& getStatusName() const { return _statusName; }

private:
    unsigned long _line;
    std::string _statusName;
};

/// Thrown by the lock guards when a lock cannot be taken or released.
class ThreadException : public Exception {
public:
    /// As basis::Exception, with the status kStatus_Thread.
    ThreadException(const std::string& description, unsigned long line,
                    const std::string& statusName);
};

/// Thrown by the buffer manager when memory cannot be obtained.
class BufferException : public Exception {
public:
    /// As basis::Exception, with the status kStatus_Buffer.
    BufferException(const std::string& description, unsigned long line,
                    const std::string& statusName);
};

}  // namespace basis

#endif  // BASIS_INCLUDE_EXCEPTION_H
