#pragma once

#include <libxml/tree.h>

#include <cstddef>

/// True when the entities that `document` declares add at most `limit` bytes of text to it. The
/// parser has no such limit: it keeps references, and reading a text would expand all of them.
bool entitiesStayBelow(xmlDocPtr document, std::size_t limit);
