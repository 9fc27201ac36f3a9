/// @file
#ifndef BASIS_INCLUDE_KEELEXCEPTION_H
#define BASIS_INCLUDE_KEELEXCEPTION_H

#include <exception>
#include <string>
#include <vector>

namespace keel {

/// One frame of a keel::Exception's stack: where the exception passed (file, line, function)
/// and what was said there. A value type.
class StackFrame {
public:
    /// `file` and `function` may be null (recorded as empty).
    StackFrame(const char* file, unsigned long line, const char* function, std::string text);

    ///@{
    /// The frame's fields.
    const std::string& getFile() const { return _file; }
    unsigned long getLine() const { return _line; }
    const std::string& getFunction() const { return _function; }
    const std::string& getText() const { return _text; }
    ///@}
    /// "file(line) function: text"
    std::string toString() const;

private:
    std::string _file;
    unsigned long _line;
    std::string _function;
    std::string _text;
};

/// keel::Exception: the root of the library's exceptions, with a description, a status and the
/// stack of frames (file, line, function, text) recorded while the exception travelled up.
///
/// Thread safety: value types; distinct objects are independent.
class Exception : public std::exception {
public:
    /// What kind of failure the exception reports.
    enum Status_t {
        kStatus_Unknown = 0,
        kStatus_StdException = 1,
        kStatus_BadAlloc = 2,
        kStatus_Thread = 3,
        kStatus_Buffer = 4
    };

    /// An exception with an empty stack.
    explicit Exception(std::string description, Status_t status = kStatus_Unknown);
    ///@{
    /// A plain copy, the stack included.
    Exception(const Exception&) = default;
    Exception& operator=(const Exception&) = default;
    ///@}
    ~Exception() override = default;

    /// Records a frame on top of the stack.
    void addStackFrame(const StackFrame& frame);
    /// The frames, oldest first.
    const std::vector<StackFrame>& getStack() const { return _stack; }
    /// The description given at construction.
    const std::string& getDescription() const { return _description; }
    /// The status given at construction.
    Status_t getStatus() const { return _status; }

    /// The description, followed with `withStack` by one line per frame.
    std::string toString(bool withStack) const;
    /// One line per frame, the newest (last added) first when `newestFirst` is true.
    std::string dumpStack(bool newestFirst) const;
    /// The description.
    const char* what() const noexcept override { return _description.c_str(); }

private:
    std::string _description;
    Status_t _status;
    std::vector<StackFrame> _stack;
};

/// Wraps a standard exception: the description is its what() text.
class StdException : public Exception {
public:
    /// Takes `e`'s what() text as the description.
    StdException(const std::exception& e, Status_t status);
};

}  // namespace keel

#endif  // BASIS_INCLUDE_KEELEXCEPTION_H
