#ifndef TERNCORELIB_XML_XML_TOKEN_H_
#define TERNCORELIB_XML_XML_TOKEN_H_

#include "foundation/win.h"

#include <comdef.h>
#include <msxml2.h>

#include "buffer/buffer.h"
#include "foundation/export.h"
#include "xml/com_ptr.h"

namespace KVT {

class CXMLTag;

// The name of an element or attribute: the wide text of the CBuffer<wchar_t> that the object is,
// read with GetBuffer. A name built from null or from an empty text has no block (null `data`).
//
// The six comparisons share one three-way order, that of CBuffer::Compare: code units as
// unsigned 16-bit values, no case folding, no locale; a name without a block is lower than every
// name with one, even an empty one, and equal to another without one; a text is lower than any
// longer text that begins with it. Tags and attributes are sorted and searched in this order.
//
// Copies share the name block as CBuffer's copies do: the block is released once, by the last
// object that holds it, whichever goes first.
class TERN_API CXMLToken : public CBuffer<wchar_t> {
 public:
  // The name `text`, copied; null or empty text leaves the name without a block.
  explicit CXMLToken(const wchar_t* text);
  // Shares `other`'s name block, as CBuffer's copies do.
  CXMLToken(const CXMLToken& other);
  ~CXMLToken();
  // Shares `other`'s name block, as CBuffer's assignment does.
  CXMLToken& operator=(const CXMLToken& other);

  // Comparisons by CBuffer::Compare: code units as unsigned values, no case folding; a name
  // without a block sorts before every name with one, even an empty one.
  bool operator==(const CXMLToken& other) const;
  bool operator!=(const CXMLToken& other) const;
  bool operator<(const CXMLToken& other) const;
  bool operator<=(const CXMLToken& other) const;
  bool operator>(const CXMLToken& other) const;
  bool operator>=(const CXMLToken& other) const;
};

// One attribute of an element: its name, and a reference to its DOM node from which the value is
// read on every request. Nothing of the value is kept here, so a value always comes fresh from
// the DOM, and a DOM failure (_com_error) leaves the attribute as it was.
//
// An attribute built for a tag enters that tag's `attributes` array as an owned entry and is
// destroyed with the tag; the pointer that CXMLTag::GetAttribute gives is good until then. An
// attribute built from a name alone belongs to whoever built it and serves as a search key.
//
// Copies share the name block (as CXMLToken's do) and the node, with a reference of their own,
// and enter no array.
class TERN_API CXMLAttribute : public CXMLToken {
 public:
  // A search key: `domNode` null, `parent` null.
  explicit CXMLAttribute(const wchar_t* name);
  // An attribute of `tag`, with its own reference to `node`, appended to `tag`->attributes as an
  // owned entry (which makes that array unsorted). With a null `tag` it enters no array and
  // belongs to its builder. If the array cannot take the entry (no memory), the constructor
  // raises _com_error with E_OUTOFMEMORY and the array stays as it was.
  CXMLAttribute(CXMLTag* tag, CInterfacePtr<IXMLDOMNode> node, const wchar_t* name);
  CXMLAttribute(const CXMLAttribute& other);
  // Takes `other`'s name, `parent` and node; see CInterfacePtr for the order of the references.
  CXMLAttribute& operator=(const CXMLAttribute& other);
  // Drops the node reference, then the name as CXMLToken does.
  ~CXMLAttribute();

  // Gives this attribute.
  operator CXMLAttribute*();

  // The value as text, or null when the node's typed value is not text (or there is no node:
  // a key never asks the DOM). The text lies in a slot of the wide temporary-string ring (see
  // foundation/temp_string.h): the caller does not free it, and it stays good until 256 further
  // takes from that ring, by any thread. Copy it to keep it. Raises _com_error as the DOM does.
  const wchar_t* GetValue();
  // The value read as _wtoi and _wtol read it: leading white space and a sign skipped, digits up
  // to the first other character, 0 when there are none. 0 for a value that is not text and for
  // a key. Raises _com_error as GetValue does.
  int ToInt();
  long ToLong();

  CXMLTag* parent;                     // The tag it was built for; not owned.
  CInterfacePtr<IXMLDOMNode> domNode;  // The attribute's node; null in a key.
};

}  // namespace KVT

#endif  // TERNCORELIB_XML_XML_TOKEN_H_
