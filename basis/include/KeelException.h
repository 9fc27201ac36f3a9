// keel::Exception: the root of the library's exceptions, with a description, a status and the
// stack of frames (file, line, function, text) recorded while the exception travelled up.
//
// Thread safety: value types; distinct objects are independent.
#ifndef BASIS_INCLUDE_KEELEXCEPTION_H
#define BASIS_INCLUDE_KEELEXCEPTION_H

#include <exception>
#include <string>
#include <vector>

namespace keel {

class StackFrame {
public:
    StackFrame(const char* file, unsigned long line, const char* function, std::string text);

    const std::string& getFile() const { return _file; }
    unsigned long getLine() const { return _line; }
    const std::string& getFunction() const { return _function; }
    const std::string& getText() const { return _text; }
    // "file(line) function: text"
    std::string toString() const;

private:
    std::string _file;
    unsigned long _line;
    std::string _function;
    std::string _text;
};

class Exception : public std::exception {
public:
    enum Status_t {
        kStatus_Unknown = 0,
        kStatus_StdException = 1,
        kStatus_BadAlloc = 2,
        kStatus_Thread = 3,
        kStatus_Buffer = 4
    };

    explicit Exception(std::string description, Status_t status = kStatus_Unknown);
    Exception(const Exception&) = default;
    Exception& operator=(const Exception&) = default;
    ~Exception() override = default;

    void addStackFrame(const StackFrame& frame);
    const std::vector<StackFrame>& getStack() const { return _stack; }
    const std::string& getDescription() const { return _description; }
    Status_t getStatus() const { return _status; }

    // The description, followed with `withStack` by one line per frame.
    std::string toString(bool withStack) const;
    // One line per frame, the newest (last added) first when `newestFirst` is true.
    std::string dumpStack(bool newestFirst) const;
    const char* what() const noexcept override { return _description.c_str(); }

private:
    std::string _description;
    Status_t _status;
    std::vector<StackFrame> _stack;
};

// Wraps a standard exception: the description is its what() text.
class StdException : public Exception {
public:
    StdException(const std::exception& e, Status_t status);
};

}  // namespace keel

#endif  // BASIS_INCLUDE_KEELEXCEPTION_H
