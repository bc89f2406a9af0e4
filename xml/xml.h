#ifndef TERNCORELIB_XML_XML_H_
#define TERNCORELIB_XML_XML_H_

#include "foundation/win.h"

#include <comdef.h>
#include <msxml2.h>

#include "foundation/export.h"
#include "xml/com_ptr.h"
#include "xml/xml_tag.h"
#include "xml/xml_token.h"

namespace KVT {

// A read-only XML document: one MSXML DOM document object, made once by the constructor and
// reused by every load, and the root tag of the text last loaded. Text comes in as a wide string;
// nothing is ever written or saved.
//
// The document is "Msxml2.DOMDocument.4.0", or "Msxml2.DOMDocument.6.0" where 4.0 cannot be
// created (`version6` then says that 6.0 was tried). COM must be started on the calling thread;
// the library does that on every thread (see foundation/dll_main.cpp).
//
// Failures: null and false are the ordinary negative answers; what the DOM refuses arrives as
// _com_error carrying the HRESULT, and nothing here catches it. A call that needs the document
// when there is none raises E_POINTER.
//
// Lifetime of what it gives: the root tag, and every tag and attribute reached from it, belong to
// the tree and are destroyed by Reset, by a LoadXML with a text (good or bad) and by the
// destructor (see CXMLTag for the tags below the root). Values from GetValue live in the wide
// temporary-string ring.
//
// Untrusted text. CXml(text) is made for the application's own documents: on a system without
// 4.0 its 6.0 document accepts a DTD and resolves external references, as 4.0 does by default,
// so a text from elsewhere can make the parser fetch files or URLs that it names, or expand
// entities without end. For text you do not trust, build CXml() (which sets nothing), turn both
// off on `document` before LoadXML (document->put_resolveExternals(VARIANT_FALSE), and
// setProperty "ProhibitDTD" true), and refuse texts that hold "<!DOCTYPE": not every DOM honours
// ProhibitDTD (Wine's accepts the property and still loads a DTD).
//
// Copies share the document (with a reference of their own) and the tree: the tree is
// destroyed once, when the last CXml that holds it lets go of it (Reset, a new load, or its
// destruction). A Reset of one copy leaves the tree, node included, to the others. Copies are
// one object for threads: use them from one thread at a time. `root` is the CXml's own: never
// assign it.
class TERN_API CXml {
 public:
  // Creates the document; sets no property. Raises nothing: if neither class can be created,
  // `document` stays null and every later load raises E_POINTER.
  CXml();
  // Creates the document; a 6.0 document gets "ProhibitDTD" false, then "ResolveExternals" true,
  // so that DTDs are accepted and external references resolved (a 4.0 one does so already):
  // not for untrusted text, see above.
  // Then loads `text`; a load that fails leaves GetRoot null. A null `text` raises nothing, even
  // without a document; a text without a document raises E_POINTER, and a property that the
  // document refuses raises its HRESULT.
  explicit CXml(const wchar_t* text);
  CXml(const CXml& other);
  // Takes `other`'s document, tree and `version6`. This object's former tree is let go of as
  // Reset does; its references change as CInterfacePtr's assignment says.
  CXml& operator=(const CXml& other);
  // Reset, then drops the document.
  ~CXml();

  // Replaces the tree by that of `text`. A null `text` gives false and keeps the old tree.
  // Otherwise the old tree goes first, whatever follows: a text that does not parse gives false
  // with no root (the parser's error details are not read); a document without an element too.
  // Without a document: the old tree goes, then E_POINTER.
  bool LoadXML(const wchar_t* text);
  // Destroys the tree (the root's node is released first); keeps the document.
  void Reset();
  // The root tag, or null when nothing is loaded. It stays the CXml's.
  CXMLTag* GetRoot();

  // The value of `node` as text: for a VT_BSTR typed value, its text (empty for a null BSTR);
  // null for any other type. The text is copied into a slot of the wide temporary-string ring, so
  // it stays good until 256 further takes from that ring by any thread, and the caller frees
  // nothing. Raises E_POINTER for a null node, E_OUTOFMEMORY for a text that no slot can hold
  // (512,000 characters or more), and what the DOM raises.
  static const wchar_t* GetXMLTextValue(CInterfacePtr<IXMLDOMNode> node);

  // Path walks. Arguments are names, one each, read up to the first null pointer, which must
  // end the list; a slash is an ordinary character. The first name is compared with the root's
  // without regard to case, the others as GetTag and GetAttribute compare them.
  //
  //   situation                          FindTagV        FindAttributeV
  //   nothing loaded, or `first` null    null            null
  //   `first` is not the root's name     the root (!)    null
  //   `first` alone                      the root        null
  //   names follow                       the tag of the  the attribute named last, on the tag
  //                                      last name       that the names before it lead to
  //   a name on the way is missing       null            null
  //
  // The tags built on the way belong to the tree, as every tag from GetTag does.
  CXMLTag* FindTagV(const wchar_t* first, ...);
  CXMLAttribute* FindAttributeV(const wchar_t* first, ...);

  bool version6;                              // 4.0 could not be created and 6.0 was tried.
  CInterfacePtr<IXMLDOMDocument2> document;   // Null if no class could be created.
  CXMLTag* root;                              // Owned (shared by copies); null when empty.
};

}  // namespace KVT

#endif  // TERNCORELIB_XML_XML_H_
