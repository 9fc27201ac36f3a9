#include "KeelException.h"

#include <sstream>
#include <utility>

namespace keel {

StackFrame::StackFrame(const char* file, unsigned long line, const char* function, std::string text)
    : _file(file ? file : ""),
      _line(line),
      _function(function ? function : ""),
      _text(std::move(text)) {}

std::string StackFrame::toString() const {
    std::ostringstream out;
    out << _file << "(" << _line << ") " << _function << ": " << _text;
    return out.str();
}

Exception::Exception(std::string description, Status_t status)
    : _description(std::move(description)), _status(status) {}

void Exception::addStackFrame(const StackFrame& frame) {
    _stack.push_back(frame);
}

std::string Exception::toString(bool withStack) const {
    std::string text = _description;
    if (withStack && !_stack.empty()) {
        text += "\n" + dumpStack(true);
    }
    return text;
}

std::string Exception::dumpStack(bool newestFirst) const {
    std::string text;
    for (std::size_t i = 0; i < _stack.size(); ++i) {
        const StackFrame& frame = newestFirst ? _stack[_stack.size() - 1 - i] : _stack[i];
        text += frame.toString();
        text += "\n";
    }
    return text;
}

StdException::StdException(const std::exception& e, Status_t status)
    : Exception(e.what(), status) {}

}  // namespace keel
