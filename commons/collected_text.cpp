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

std::streamsize CollectedText::Buf::xsputn(const char* bytes, std::streamsize size) {
  const auto offered = static_cast<std::size_t>(size);
  const std::size_t taken = std::min(offered, limit_ - kept_.size());
  kept_.append(bytes, taken);
  if (excess_ == REFUSE) return static_cast<std::streamsize>(taken);
  leftOut_ += offered - taken;
  return size;
}
