#pragma once

#include <streambuf>

/// Base of stream buffers that keep no bytes. A derived class handles the bytes in `xsputn`; single
/// characters go there, too.
class UnbufferedStreamBuf : public std::streambuf {
 protected:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    const char byte = traits_type::to_char_type(c);
    return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
  }
  std::streamsize xsputn(const char* bytes, std::streamsize size) override = 0;
};
