#include "xml/internal/xml_dom.h"

#include <oleauto.h>

namespace KVT {
namespace internal {

// {2933BF80..95-7B36-11D2-B20E-00C04F983E60}, as the MSXML headers publish them.
const IID kIidXmlDomNode = {
    0x2933bf80, 0x7b36, 0x11d2, {0xb2, 0x0e, 0x00, 0xc0, 0x4f, 0x98, 0x3e, 0x60}};
const IID kIidXmlDomDocument = {
    0x2933bf81, 0x7b36, 0x11d2, {0xb2, 0x0e, 0x00, 0xc0, 0x4f, 0x98, 0x3e, 0x60}};
const IID kIidXmlDomNamedNodeMap = {
    0x2933bf83, 0x7b36, 0x11d2, {0xb2, 0x0e, 0x00, 0xc0, 0x4f, 0x98, 0x3e, 0x60}};
const IID kIidXmlDomElement = {
    0x2933bf86, 0x7b36, 0x11d2, {0xb2, 0x0e, 0x00, 0xc0, 0x4f, 0x98, 0x3e, 0x60}};
const IID kIidXmlDomDocument2 = {
    0x2933bf95, 0x7b36, 0x11d2, {0xb2, 0x0e, 0x00, 0xc0, 0x4f, 0x98, 0x3e, 0x60}};

namespace {

// Raises _com_error for a failed call of interface `iid` on `object`, with the error object
// that the calling thread holds if `object` reports errors on that interface.
[[noreturn]] void RaiseFrom(HRESULT hr, IUnknown* object, REFIID iid) {
  CInterfacePtr<IErrorInfo> info;
  CInterfacePtr<ISupportErrorInfo> support;
  if (object != nullptr &&
      SUCCEEDED(object->QueryInterface(IID_ISupportErrorInfo,
                                       reinterpret_cast<void**>(support.Receive()))) &&
      support.Get() != nullptr && support->InterfaceSupportsErrorInfo(iid) == S_OK) {
    if (::GetErrorInfo(0, info.Receive()) != S_OK) info.Reset();
  }
  // The exception takes a reference of its own; `info` drops this one as the stack unwinds.
  throw _com_error(hr, info.Get(), true);
}

void Check(HRESULT hr, IUnknown* object, REFIID iid) {
  if (FAILED(hr)) RaiseFrom(hr, object, iid);
}

BSTR AsBstr(const _bstr_t& text) { return static_cast<wchar_t*>(text); }

}  // namespace

HRESULT CreateXmlDocument(const wchar_t* progId, DocumentPtr& document) {
  document.Reset();
  if (progId == nullptr) return E_POINTER;
  CLSID clsid;
  HRESULT hr = ::CLSIDFromProgID(progId, &clsid);
  if (FAILED(hr)) return hr;
  CInterfacePtr<IUnknown> unknown;
  hr = ::CoCreateInstance(clsid, nullptr, CLSCTX_ALL, IID_IUnknown,
                          reinterpret_cast<void**>(unknown.Receive()));
  if (FAILED(hr)) return hr;
  if (unknown.Get() == nullptr) return E_POINTER;
  hr = ::OleRun(unknown.Get());
  if (FAILED(hr)) return hr;
  hr = unknown->QueryInterface(kIidXmlDomDocument2, reinterpret_cast<void**>(document.Receive()));
  if (FAILED(hr)) {
    document.Reset();
    return hr;
  }
  return document.Get() != nullptr ? hr : E_POINTER;
}

void SetProperty(const DocumentPtr& document, const wchar_t* name, bool value) {
  IXMLDOMDocument2* target = document.operator->();
  const _bstr_t property(name);
  const _variant_t setting(value);  // VT_BOOL, VARIANT_TRUE or VARIANT_FALSE
  Check(target->setProperty(AsBstr(property), setting), target, kIidXmlDomDocument2);
}

bool LoadText(const DocumentPtr& document, const wchar_t* text) {
  IXMLDOMDocument2* target = document.operator->();
  const _bstr_t source(text);
  VARIANT_BOOL parsed = VARIANT_FALSE;
  Check(target->loadXML(AsBstr(source), &parsed), target, kIidXmlDomDocument);
  return parsed != VARIANT_FALSE;
}

NodePtr DocumentElement(const DocumentPtr& document) {
  IXMLDOMDocument2* target = document.operator->();
  CInterfacePtr<IXMLDOMElement> element;
  Check(target->get_documentElement(element.Receive()), target, kIidXmlDomDocument);
  NodePtr node;
  if (element.Get() == nullptr) return node;
  const HRESULT hr =
      element->QueryInterface(kIidXmlDomNode, reinterpret_cast<void**>(node.Receive()));
  if (hr == E_NOINTERFACE) return NodePtr();
  Check(hr, nullptr, kIidXmlDomNode);
  return node;
}

_bstr_t NodeName(const NodePtr& node) {
  IXMLDOMNode* target = node.operator->();
  _bstr_t name;
  Check(target->get_nodeName(name.GetAddress()), target, kIidXmlDomNode);
  return name;
}

NodePtr FirstChild(const NodePtr& node) {
  IXMLDOMNode* target = node.operator->();
  NodePtr child;
  Check(target->get_firstChild(child.Receive()), target, kIidXmlDomNode);
  return child;
}

NodePtr NextSibling(const NodePtr& node) {
  IXMLDOMNode* target = node.operator->();
  NodePtr sibling;
  Check(target->get_nextSibling(sibling.Receive()), target, kIidXmlDomNode);
  return sibling;
}

NodePtr NamedAttribute(const NodePtr& node, const wchar_t* name) {
  IXMLDOMNode* target = node.operator->();
  CInterfacePtr<IXMLDOMNamedNodeMap> map;
  Check(target->get_attributes(map.Receive()), target, kIidXmlDomNode);
  NodePtr item;
  if (map.Get() == nullptr) return item;
  const _bstr_t key(name);
  Check(map->getNamedItem(AsBstr(key), item.Receive()), map.Get(), kIidXmlDomNamedNodeMap);
  return item;
}

void TypedValue(const NodePtr& node, _variant_t& value) {
  IXMLDOMNode* target = node.operator->();
  Check(target->get_nodeTypedValue(value.GetAddress()), target, kIidXmlDomNode);
}

}  // namespace internal
}  // namespace KVT
