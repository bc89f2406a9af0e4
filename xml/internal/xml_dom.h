#ifndef TERNCORELIB_XML_INTERNAL_XML_DOM_H_
#define TERNCORELIB_XML_INTERNAL_XML_DOM_H_

// The library's access to the MSXML DOM, used by the XML classes only (nothing here is exported).
//
// Each function is one DOM call with the library's failure rule around it: a failed HRESULT
// raises _com_error with that HRESULT, carrying the object's IErrorInfo when the object says
// (ISupportErrorInfo) that it reports errors on the interface called. A call on a null pointer
// raises E_POINTER, and a text that cannot be copied into a BSTR raises E_OUTOFMEMORY. Only
// CreateXmlDocument reports by its result instead.

#include "foundation/win.h"

#include <comdef.h>
#include <msxml2.h>

#include "xml/com_ptr.h"

namespace KVT {
namespace internal {

using NodePtr = CInterfacePtr<IXMLDOMNode>;
using DocumentPtr = CInterfacePtr<IXMLDOMDocument2>;

// MinGW's import libraries lack some of these (IXMLDOMDocument2 among them), so the library
// carries all the MSXML interface ids it uses.
extern const IID kIidXmlDomNode;
extern const IID kIidXmlDomDocument;
extern const IID kIidXmlDomDocument2;
extern const IID kIidXmlDomNamedNodeMap;
extern const IID kIidXmlDomElement;

inline constexpr const wchar_t* kProgId40 = L"Msxml2.DOMDocument.4.0";
inline constexpr const wchar_t* kProgId60 = L"Msxml2.DOMDocument.6.0";

// Creates the document class of `progId` (CLSIDFromProgID, CoCreateInstance for IUnknown in every
// context, OleRun, then IXMLDOMDocument2) into `document`. Gives the first failing HRESULT and
// leaves `document` null on failure; raises nothing. A null `progId` gives E_POINTER.
HRESULT CreateXmlDocument(const wchar_t* progId, DocumentPtr& document);

// setProperty(`name`, a VT_BOOL variant of `value`).
void SetProperty(const DocumentPtr& document, const wchar_t* name, bool value);

// loadXML of `text`: true when it parsed. A text that does not parse is false, not an error.
bool LoadText(const DocumentPtr& document, const wchar_t* text);

// The root element read as a node; null if the document has none, or if the element does not
// offer IXMLDOMNode (E_NOINTERFACE). Any other failure of the QueryInterface raises.
NodePtr DocumentElement(const DocumentPtr& document);

// get_nodeName: the DOM's name for the node ("#text", "#comment" for those kinds).
_bstr_t NodeName(const NodePtr& node);

// get_firstChild and get_nextSibling: nodes of every type; null when there are none.
NodePtr FirstChild(const NodePtr& node);
NodePtr NextSibling(const NodePtr& node);

// get_attributes, then getNamedItem(`name`) with the exact name: null when the node has no
// attribute map (text, comments) or no such attribute.
NodePtr NamedAttribute(const NodePtr& node, const wchar_t* name);

// get_nodeTypedValue into `value`, which is cleared first.
void TypedValue(const NodePtr& node, _variant_t& value);

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_XML_INTERNAL_XML_DOM_H_
