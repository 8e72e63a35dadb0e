// An output stream buffer that writes straight to a descriptor.
#pragma once

#include <streambuf>
#include <string>

/// Buffers output and writes it to a descriptor (not owned) on sync() (std::flush, std::endl)
/// and when the buffer is full, every byte (short writes continued, EINTR resumed). The commands
/// whose standard output is data (recv, dump) write it through one of these on descriptor 1,
/// while std::cout, where the library's log lines go, is pointed at standard error. After a
/// failed write the buffer reports failure (the stream's badbit) and failed() is true.
class FdStreamBuf : public std::streambuf {
  public:
    explicit FdStreamBuf(int fd);
    ~FdStreamBuf() override;
    bool failed() const { return writeFailed; }

  protected:
    int_type overflow(int_type ch) override;
    std::streamsize xsputn(const char* s, std::streamsize n) override;
    int sync() override;

  private:
    bool flushBuffer();
    int fd;
    std::string pending;
    bool writeFailed = false;
};
