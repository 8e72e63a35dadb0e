// Thrown when a trace message's data does not fit the buffer it is copied into.
#pragma once

#include <exception>
#include <string>

/// Holds one message text; what() returns it. Thrown by value, e.g. by
/// CANTraceMessageBase::getDataBytes() with "CANTraceMessageBase too long".
class BufferMismatchException : public std::exception {
  public:
    explicit BufferMismatchException(const char* pmsg);
    ~BufferMismatchException() override;
    const char* what() const noexcept override;

  private:
    std::string msg;
};
