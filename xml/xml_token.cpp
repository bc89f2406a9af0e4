#include "xml/xml_token.h"

#include <cstdlib>
#include <cwchar>

#include "xml/xml.h"
#include "xml/xml_tag.h"

namespace KVT {

// The name is copied with Add(text, length), not through CBuffer's text constructor, so that a
// null or empty text allocates no block: both leave `data` null.
CXMLToken::CXMLToken(const wchar_t* text) {
  if (text != nullptr && text[0] != 0) Add(text, static_cast<int>(std::wcslen(text)));
}

// Name storage is CBuffer's: a copy shares the block, and CBuffer's hidden holder count releases
// it once, by whichever holder goes last.
CXMLToken::CXMLToken(const CXMLToken& other) : CBuffer<wchar_t>(other) {}

CXMLToken::~CXMLToken() = default;

// CBuffer's assignment only drops its hold on the old block, so that a block that nobody else
// holds would stay allocated for good. A name is never pointed into from outside, so the old
// block is let go of first (released if this was its last holder): every block is released
// exactly once, by its last holder.
CXMLToken& CXMLToken::operator=(const CXMLToken& other) {
  if (this == &other) return *this;
  if (data != other.data) Free();
  CBuffer<wchar_t>::operator=(other);
  return *this;
}

bool CXMLToken::operator==(const CXMLToken& other) const { return Compare(other) == 0; }
bool CXMLToken::operator!=(const CXMLToken& other) const { return Compare(other) != 0; }
bool CXMLToken::operator<(const CXMLToken& other) const { return Compare(other) == -1; }
bool CXMLToken::operator<=(const CXMLToken& other) const { return Compare(other) != 1; }
bool CXMLToken::operator>(const CXMLToken& other) const { return Compare(other) == 1; }
bool CXMLToken::operator>=(const CXMLToken& other) const { return Compare(other) != -1; }

CXMLAttribute::CXMLAttribute(const wchar_t* name) : CXMLToken(name), parent(nullptr) {}

CXMLAttribute::CXMLAttribute(CXMLTag* tag, CInterfacePtr<IXMLDOMNode> node, const wchar_t* name)
    : CXMLToken(name), parent(tag), domNode(node) {
  if (tag == nullptr) return;
  XArray<CXMLAttribute*>& attributes = tag->attributes;
  const bool sorted = attributes.sorted;
  const int index = attributes.Add(this, true);
  if (index >= 0 && attributes[index] == this) return;
  // The array could not record the entry: it must not keep a hole or an unowned pointer, and
  // the caller must not get an attribute that nothing would destroy. Raising from here frees
  // the object that `new` made.
  if (index >= 0) attributes.count = index;
  attributes.sorted = sorted;
  RaiseComError(E_OUTOFMEMORY);
}

CXMLAttribute::CXMLAttribute(const CXMLAttribute& other)
    : CXMLToken(other), parent(other.parent), domNode(other.domNode) {}

CXMLAttribute& CXMLAttribute::operator=(const CXMLAttribute& other) {
  CXMLToken::operator=(other);
  parent = other.parent;
  domNode = other.domNode;
  return *this;
}

CXMLAttribute::~CXMLAttribute() { domNode.Reset(); }

CXMLAttribute::operator CXMLAttribute*() { return this; }

const wchar_t* CXMLAttribute::GetValue() {
  if (domNode == nullptr) return nullptr;
  return CXml::GetXMLTextValue(domNode);
}

int CXMLAttribute::ToInt() {
  if (domNode == nullptr) return 0;
  const wchar_t* text = CXml::GetXMLTextValue(domNode);
  return text != nullptr ? _wtoi(text) : 0;
}

long CXMLAttribute::ToLong() {
  if (domNode == nullptr) return 0;
  const wchar_t* text = CXml::GetXMLTextValue(domNode);
  return text != nullptr ? _wtol(text) : 0;
}

}  // namespace KVT
