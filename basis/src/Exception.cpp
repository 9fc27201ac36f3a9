#include "Exception.h"

namespace basis {

Exception::Exception(const std::string& description, unsigned long line,
                     const std::string& statusName, Status_t status)
    : keel::Exception(description, status), _line(line), _statusName(statusName) {}

ThreadException::ThreadException(const std::string& description, unsigned long line,
                                 const std::string& statusName)
    : Exception(description, line, statusName, kStatus_Thread) {}

BufferException::BufferException(const std::string& description, unsigned long line,
                                 const std::string& statusName)
    : Exception(description, line, statusName, kStatus_Buffer) {}

}  // namespace basis
