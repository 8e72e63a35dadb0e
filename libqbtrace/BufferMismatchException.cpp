#include "libqbtrace/BufferMismatchException.h"

BufferMismatchException::BufferMismatchException(const char* pmsg)
    : msg(pmsg != nullptr ? pmsg : "") {}

BufferMismatchException::~BufferMismatchException() = default;

const char* BufferMismatchException::what() const noexcept {
    return msg.c_str();
}
