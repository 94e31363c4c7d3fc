#include "platform/xml.h"

#include <tinyxml2.h>

#include <cstring>

namespace platform {
namespace {

// The name after its prefix; a name with nothing after its last colon
// ("a:", which the parser lets through) stays whole, so no name is empty.
const char* LocalName(const char* name) {
  const char* colon = std::strrchr(name, ':');
  return colon != nullptr && colon[1] != '\0' ? colon + 1 : name;
}

bool Convert(const tinyxml2::XMLElement* from, int depth, XmlElementSpec* to, std::string* error) {
  if (depth > kXmlMaxDepth) {
    *error = "elements nested too deep";
    return false;
  }
  to->name = LocalName(from->Name());
  for (const tinyxml2::XMLAttribute* a = from->FirstAttribute(); a != nullptr; a = a->Next()) {
    to->attributes.emplace_back(LocalName(a->Name()), a->Value());
  }
  for (const tinyxml2::XMLNode* node = from->FirstChild(); node != nullptr; node = node->NextSibling()) {
    if (const tinyxml2::XMLText* text = node->ToText()) {
      to->text += text->Value();
    } else if (const tinyxml2::XMLElement* child = node->ToElement()) {
      to->children.emplace_back();
      if (!Convert(child, depth + 1, &to->children.back(), error)) return false;
    }
  }
  return true;
}

}  // namespace

const XmlElementSpec* XmlElementSpec::Child(const char* childName) const {
  for (const XmlElementSpec& child : children) {
    if (child.name == childName) return &child;
  }
  return nullptr;
}

std::string XmlElementSpec::ChildText(const char* childName) const {
  const XmlElementSpec* child = Child(childName);
  return child != nullptr ? child->text : std::string();
}

bool ParseXml(const char* data, size_t size, XmlElementSpec* root, std::string* error) {
  *root = XmlElementSpec();
  error->clear();
  // Whitespace kept as it is: values such as keys may hold blanks.
  tinyxml2::XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
  if (doc.Parse(data, size) != tinyxml2::XML_SUCCESS) {
    const char* why = doc.ErrorStr();
    *error = why != nullptr ? why : "not XML";
    return false;
  }
  const tinyxml2::XMLElement* top = doc.RootElement();
  if (top == nullptr) {
    *error = "no root element";
    return false;
  }
  return Convert(top, 1, root, error);
}

}  // namespace platform
