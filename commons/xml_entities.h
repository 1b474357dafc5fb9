#pragma once

#include <libxml/tree.h>

#include <cstddef>

/// True when no more than `limit` bytes of text come into `document` through entities
/// that it declares. The parser itself puts no end to that: it keeps references, and
/// each look at a text would write out all that they stand for.
bool entitiesStayBelow(xmlDocPtr document, std::size_t limit);
