#pragma once

#include <streambuf>

/// A stream's target without a buffer: a derived class says in `xsputn` what happens to
/// bytes; a single one takes the same path.
class UnbufferedStreamBuf : public std::streambuf {
 protected:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    const char byte = traits_type::to_char_type(c);
    return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
  }
  std::streamsize xsputn(const char* bytes, std::streamsize size) override = 0;
};
