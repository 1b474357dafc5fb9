#include "commons/collected_text.h"

#include <algorithm>

CollectedText::CollectedText(std::size_t limit, Excess excess)
    : std::ostream(nullptr), buffer_(limit, excess) {
  rdbuf(&buffer_);
}

std::string CollectedText::str() const {
  return buffer_.str();
}

std::string CollectedText::Buf::str() const {
  if (leftOut_ == 0) return kept_;
  return kept_ + "\n[" + std::to_string(leftOut_) + " more bytes were left out]\n";
}

CollectedText::Buf::int_type CollectedText::Buf::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  const char byte = traits_type::to_char_type(c);
  return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
}

std::streamsize CollectedText::Buf::xsputn(const char* bytes, std::streamsize size) {
  const auto offered = static_cast<std::size_t>(size);
  const std::size_t taken = std::min(offered, limit_ - kept_.size());
  kept_.append(bytes, taken);
  if (excess_ == REFUSE) return static_cast<std::streamsize>(taken);
  leftOut_ += offered - taken;
  return size;
}
