#include "commons/exceptions.h"

#include <exception>
#include <iostream>

#include "commons/uuid.h"

ExTraceable::ExTraceable(const std::string& code, const std::string& messageFormat)
    : std::runtime_error(code),
      code_(code),
      messageFormat_(messageFormat),
      message_(messageFormat),
      id_(newUUID()) {}

void ExTraceable::accept(ExInfoVisitor& visitor) const {
  visitor.setCode(code_);
  visitor.setId(id_);
  visitor.setSeverity(severity_);
  visitor.setMessage(what());
}

const char* ExTraceable::what() const noexcept {
  try {
    text_ = message_.str();
  } catch (const std::exception&) {
    std::cerr << code_ << ": " << messageFormat_ << std::endl;
    std::terminate();
  }
  return text_.c_str();
}

void ExTaggedIncludable::accept(ExInfoVisitor& visitor) const {
  ExTraceable::accept(visitor);
  if (!inner_) return;
  visitor.advanceToInnerException();
  inner_->accept(visitor);
}

void TextMsgFormatter::advanceToInnerException() {
  appendBlock();
  output_ += "\nInner exception:\n";
}

std::string TextMsgFormatter::finish() {
  appendBlock();
  return output_;
}

void TextMsgFormatter::appendBlock() {
  output_ += (boost::format("%1%[%2%]: %3% [%4%:%5%]\n%6%") % code_ % id_ % message_ % file_ %
              line_ % context_)
                 .str();
}

std::string formatPlainTextMessage(const ExTraceable& exception) {
  TextMsgFormatter formatter;
  exception.accept(formatter);
  return formatter.finish();
}
