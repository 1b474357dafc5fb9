#pragma once

#include <string>

#include "commons/xml_wrap.h"

/// Helpers for the tests of reading and of saving XML documents.

inline const char* const NO_NAME = nullptr;

/// A document with one child of the root.
inline tXmlDtmDocument makeDocument(const std::string& text) {
  tXmlDtmDocument document;
  document.initNewDoc("root");
  document.newTextChild(document.root(), "child", text);
  return document;
}
