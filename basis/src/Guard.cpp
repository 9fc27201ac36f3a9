#include "Guard.h"

#include <string>

#include "Exception.h"

namespace basis {

void ThrowGuardFailure(Err_t result, const char* guardName, const char* function,
                       unsigned long line, const char* statusName) {
    const std::string text = Tools::GetErrStr(result);
    ThreadException e(text, line, statusName);
    const std::string fullName = std::string(guardName) + "::" + function;
    e.addStackFrame(keel::StackFrame("basis/Guard", line, fullName.c_str(), text));
    throw e;
}

}  // namespace basis
