#include "xml/xml.h"

#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <new>
#include <vector>

#include "foundation/internal/counted_block.h"
#include "foundation/string_util.h"
#include "foundation/temp_string.h"
#include "xml/internal/xml_dom.h"

namespace KVT {
namespace {

// The root tag lives in a counted block of the object allocator, so that copies of a CXml can
// share one tree and the last of them destroys it.
using RootBlock = internal::CountedBlock<internal::ObjectMemory>;
static_assert(alignof(CXMLTag) <= internal::ObjectMemory::kAlignment,
              "the tag keeps the alignment that the object allocator gives");

// A root tag with one holder. Out of memory raises std::bad_alloc, as new does; what the tag's
// constructor raises passes through, and the block goes back first.
CXMLTag* NewRoot(const internal::NodePtr& node, const wchar_t* name) {
  void* block = RootBlock::Allocate(sizeof(CXMLTag));
  if (block == nullptr) throw std::bad_alloc();
  try {
    return new (block) CXMLTag(node, name);
  } catch (...) {
    RootBlock::Free(block);
    throw;
  }
}

void HoldRoot(CXMLTag* root) { RootBlock::Retain(root); }

// Lets go of `root`; the last holder releases its node, then destroys it with its attributes and
// children.
void DropRoot(CXMLTag* root) {
  RootBlock::Release(root, [root](void*) {
    if (root->domNode != nullptr) root->Release();
    root->~CXMLTag();
  });
}

// The names of a path, up to the first null.
std::vector<const wchar_t*> PathNames(const wchar_t* first, va_list rest) {
  std::vector<const wchar_t*> names;
  for (const wchar_t* name = first; name != nullptr; name = va_arg(rest, const wchar_t*)) {
    names.push_back(name);
  }
  return names;
}

}  // namespace

CXml::CXml() : version6(false), root(nullptr) {
  if (internal::CreateXmlDocument(internal::kProgId40, document) == S_OK) return;
  version6 = true;
  internal::CreateXmlDocument(internal::kProgId60, document);
}

CXml::CXml(const wchar_t* text) : version6(false), root(nullptr) {
  if (internal::CreateXmlDocument(internal::kProgId40, document) != S_OK) {
    version6 = true;
    if (internal::CreateXmlDocument(internal::kProgId60, document) == S_OK) {
      internal::SetProperty(document, L"ProhibitDTD", false);
      internal::SetProperty(document, L"ResolveExternals", true);
    }
  }
  LoadXML(text);
}

CXml::CXml(const CXml& other)
    : version6(other.version6), document(other.document), root(other.root) {
  HoldRoot(root);
}

// A field-by-field copy would leave the former tree without a holder; here it is let
// go of, and destroyed if this object was its last holder.
CXml& CXml::operator=(const CXml& other) {
  if (this == &other) return *this;
  HoldRoot(other.root);
  DropRoot(root);
  version6 = other.version6;
  document = other.document;
  root = other.root;
  return *this;
}

CXml::~CXml() {
  Reset();
  document.Reset();
}

bool CXml::LoadXML(const wchar_t* text) {
  if (text == nullptr) return false;
  Reset();
  if (!internal::LoadText(document, text)) return false;
  internal::NodePtr element = internal::DocumentElement(document);
  if (element == nullptr) return false;
  const _bstr_t name = internal::NodeName(element);
  root = NewRoot(element, name);
  return true;
}

void CXml::Reset() {
  CXMLTag* old = root;
  root = nullptr;
  DropRoot(old);
}

CXMLTag* CXml::GetRoot() { return root; }

const wchar_t* CXml::GetXMLTextValue(CInterfacePtr<IXMLDOMNode> node) {
  if (node == nullptr) RaiseComError(E_POINTER);
  _variant_t value;
  internal::TypedValue(node, value);
  if (V_VT(&value) != VT_BSTR) return nullptr;
  // Where the text lives: the variant is cleared on return, and the caller frees nothing, so the
  // text is copied into a slot of the wide temporary-string ring, which every thread may use and
  // which needs no release. A null BSTR is COM's empty text.
  const BSTR text = V_BSTR(&value);
  const UINT length = text != nullptr ? ::SysStringLen(text) : 0;
  wchar_t* slot = nullptr;
  if (length >= kMaxTempStringChars || KVTGetTmpString(slot, length + 1) == 0) {
    RaiseComError(E_OUTOFMEMORY);
  }
  if (length > 0) std::memcpy(slot, text, length * sizeof(wchar_t));
  slot[length] = 0;
  return slot;
}

CXMLTag* CXml::FindTagV(const wchar_t* first, ...) {
  if (root == nullptr || first == nullptr) return nullptr;
  if (!StrEqual(first, root->GetBuffer(), false)) return root;
  va_list rest;
  va_start(rest, first);
  const std::vector<const wchar_t*> names = PathNames(first, rest);
  va_end(rest);
  CXMLTag* tag = root;
  for (std::size_t i = 1; i < names.size() && tag != nullptr; ++i) tag = tag->GetTag(names[i]);
  return tag;
}

CXMLAttribute* CXml::FindAttributeV(const wchar_t* first, ...) {
  if (root == nullptr || first == nullptr) return nullptr;
  if (!StrEqual(first, root->GetBuffer(), false)) return nullptr;
  va_list rest;
  va_start(rest, first);
  const std::vector<const wchar_t*> names = PathNames(first, rest);
  va_end(rest);
  if (names.size() < 2) return nullptr;
  CXMLTag* tag = root;
  for (std::size_t i = 1; i + 1 < names.size(); ++i) {
    tag = tag->GetTag(names[i]);
    if (tag == nullptr) return nullptr;
  }
  return tag->GetAttribute(names.back());
}

}  // namespace KVT
