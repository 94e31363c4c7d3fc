// Reading XML documents: the answers of web services.
//
// A document becomes a tree of elements, each with its local name (any
// namespace prefix dropped), its text (the character data directly inside
// it, entities decoded) and its child elements in order. Attributes are
// kept by local name. Comments, processing instructions and the
// declaration are skipped.
//
// The input is untrusted: it is read within its size, nesting deeper than
// kXmlMaxDepth is refused, and text that is not well-formed is refused
// with the parser's reason.
#ifndef PLINTH_PLATFORM_XML_H_
#define PLINTH_PLATFORM_XML_H_

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace platform {

constexpr int kXmlMaxDepth = 64;

struct XmlElementSpec {
  std::string name;
  std::string text;
  std::vector<std::pair<std::string, std::string>> attributes;
  std::vector<XmlElementSpec> children;

  // The first child of that name, or null.
  const XmlElementSpec* Child(const char* childName) const;
  // The text of the first child of that name; empty when there is none.
  std::string ChildText(const char* childName) const;
};

// Parses `size` bytes into the root element. False, with `error` set, for
// text that is not a well-formed document.
bool ParseXml(const char* data, size_t size, XmlElementSpec* root, std::string* error);

}  // namespace platform

#endif  // PLINTH_PLATFORM_XML_H_
