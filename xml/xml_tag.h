#ifndef TERNCORELIB_XML_XML_TAG_H_
#define TERNCORELIB_XML_XML_TAG_H_

#include "foundation/win.h"

#include <comdef.h>
#include <msxml2.h>

#include "foundation/export.h"
#include "foundation/x_array.h"
#include "xml/com_ptr.h"
#include "xml/xml_token.h"

namespace KVT {

// A lazy view of one DOM node: its name (the CXMLToken that the tag is), a reference to the node,
// and what has been asked of it so far. Building a tag reads nothing from the document; children
// and attributes are fetched when asked for.
//
// What an application may rely on:
// - Every tag that GetTag, FirstTag or NextTag gives belongs to the tag it came from and is
//   destroyed with it (and so with the whole tree when CXml::Reset, LoadXML or ~CXml destroys
//   the root). Never delete one. A pointer stays good as long as the tag it came from does; a
//   tag that the application built itself is the application's.
// - Each of those calls builds a new tag, also for a child that was given before, because the
//   DOM gives no way to recognise a node again. Asking for the same child twice gives two objects
//   of equal name over the same node, each with its own attribute cache and iteration; the
//   older one stays good. A long-lived tree that is asked for the same children over and over
//   grows with each call until it is reset: keep the pointers instead of asking again.
// - An attribute that GetAttribute gives belongs to the tag and is cached: the same name gives
//   the same object, without a DOM call, until the tag goes, also after Release.
// - GetValue gives text from the wide temporary-string ring (see CXMLAttribute::GetValue).
// - A tag is used by one thread at a time: most calls change it (cache, iteration).
// - Failures of the DOM arrive as _com_error with the HRESULT; calls that need the node on a tag
//   without one (a key tag, or after Release) raise it with E_POINTER.
//
// Copies share the name block, the node and the cursor (each with a reference of its own) and
// both arrays; the arrays' tables, and the attributes and children in them, are released once,
// by the last copy that holds them (XArray's hidden holder count). Use either copy, not both
// interleaved, as the cached objects are common to them.
class TERN_API CXMLTag : public CXMLToken {
 public:
  // A key tag: the name alone, no node. It finds nothing in the DOM.
  explicit CXMLTag(const wchar_t* name);
  // A root tag over `node`, with a reference of its own.
  CXMLTag(CInterfacePtr<IXMLDOMNode> node, const wchar_t* name);
  // A child tag: as above, with `parent` recorded. Enters no array.
  CXMLTag(CXMLTag* parent, CInterfacePtr<IXMLDOMNode> node, const wchar_t* name);
  CXMLTag(const CXMLTag& other);
  CXMLTag& operator=(const CXMLTag& other);
  // Destroys the attributes, then the children that the tag holds, then drops the cursor and the
  // node.
  ~CXMLTag();

  // Gives this tag.
  operator CXMLTag*();

  // The attribute of exactly this name (case counts), from the cache or else fetched from the
  // DOM and cached; null when the node has no such attribute or no attribute map (text,
  // comments). A name not in the cache raises E_POINTER on a tag without a node. A null or empty
  // name is never in the cache and goes to the DOM as it is, which may refuse it (Wine refuses a
  // null name with E_INVALIDARG).
  CXMLAttribute* GetAttribute(const wchar_t* name);
  // The first child whose DOM name equals `name` without regard to case, of any node type
  // ("#text", "#comment" and the like included); the new tag bears `name` as spelled here. Null
  // if none, or if `name` is null. Leaves the iteration alone. Raises E_POINTER without a node.
  CXMLTag* GetTag(const wchar_t* name);
  // Starts an iteration over all children, of every node type, under the DOM's names; gives the
  // first, or null if there is none or the tag has no node.
  CXMLTag* FirstTag();
  // The next child of the iteration; null before any FirstTag and, once the children have run
  // out, on every later call until FirstTag starts again.
  CXMLTag* NextTag();
  // As CXMLAttribute::GetValue, on the tag's node: for an element, its text. Null without a node.
  const wchar_t* GetValue();
  // Drops the node early; cached attributes, children and the iteration stay usable.
  void Release();

  CXMLTag* parent;                     // The tag this one came from; null in a root or key.
  CInterfacePtr<IXMLDOMNode> domNode;  // The node; null in a key tag and after Release.
  CInterfacePtr<IXMLDOMNode> cursor;   // The child the iteration reached; null when idle.
  XArray<CXMLAttribute*> attributes;   // Attributes fetched so far, owned, sorted on demand.
  // The children built from this tag, owned. They sit behind `count`, which stays 0, so that the
  // name search (FindTag) never meets them; see AdoptChild in xml_tag.cpp.
  XArray<CXMLTag*> tags;

 private:
  // Searches `attributes` (or `tags`, slots below `count`) by exact name, sorting it first if
  // an entry came in since the last sort; never asks the DOM. Null if not found.
  CXMLAttribute* FindAttribute(const wchar_t* name);
  CXMLTag* FindTag(const wchar_t* name);
};

}  // namespace KVT

#endif  // TERNCORELIB_XML_XML_TAG_H_
