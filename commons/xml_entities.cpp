#include "commons/xml_entities.h"

#include <libxml/entities.h>

#include <cstring>

namespace {

/// Walks through a document like its readers, into entities too, until the text of the entities
/// exceeds the limit.
class EntityWalk {
 public:
  EntityWalk(xmlDocPtr document, std::size_t limit) : document_(document), left_(limit) {}

  /// False when the limit is exceeded.
  bool walk(const xmlNode* first, int depth) {
    // The parser refuses entities that contain themselves; this limit protects the stack.
    constexpr int DEEPEST = 64;
    if (depth > DEEPEST) return false;
    for (const xmlNode* node = first; node; node = node->next) {
      if (!visit(node, depth)) return false;
    }
    return true;
  }

 private:
  bool visit(const xmlNode* node, int depth) {
    switch (node->type) {
      case XML_TEXT_NODE:
      case XML_CDATA_SECTION_NODE: return depth == 0 || take(node->content);
      case XML_ENTITY_REF_NODE: return enter(node, depth);
      case XML_ELEMENT_NODE:
        for (const xmlAttr* attribute = node->properties; attribute; attribute = attribute->next) {
          if (!walk(attribute->children, depth)) return false;
        }
        return walk(node->children, depth);
      default: return true;
    }
  }

  bool enter(const xmlNode* reference, int depth) {
    // A reference counts as one byte: many references to an empty entity take time, too.
    if (left_ == 0) return false;
    --left_;
    const xmlEntity* entity = xmlGetDocEntity(document_, reference->name);
    return !entity || walk(entity->children, depth + 1);
  }

  bool take(const xmlChar* text) {
    const std::size_t size = text ? std::strlen(reinterpret_cast<const char*>(text)) : 0;
    if (size > left_) return false;
    left_ -= size;
    return true;
  }

  xmlDocPtr document_;
  std::size_t left_;
};

}  // namespace

bool entitiesStayBelow(xmlDocPtr document, std::size_t limit) {
  const bool declaresAny = document->intSubset && document->intSubset->entities;
  return !declaresAny || EntityWalk(document, limit).walk(document->children, 0);
}
