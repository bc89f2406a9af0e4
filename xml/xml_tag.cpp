#include "xml/xml_tag.h"

#include <utility>

#include "foundation/string_util.h"
#include "xml/xml.h"
#include "xml/internal/xml_dom.h"

namespace KVT {
namespace {

// Three-way order of two names, as CXMLToken's operators give it. An empty slot (null) counts
// as a name without a block, so that a hole in an array can never be dereferenced.
int Order(const CXMLToken* a, const CXMLToken* b) {
  static const CXMLToken kNoName(nullptr);
  return (a != nullptr ? *a : kNoName).Compare(b != nullptr ? *b : kNoName);
}

template <typename T>
void SwapEntries(XArray<T*>& array, int a, int b) {
  std::swap(array.entries[a], array.entries[b]);
}

// Sorts slots `low`..`high` by name: quicksort with Bentley and Sedgewick's three-way partition,
// the pivot at the top end. Slots move, the records and objects behind them don't, so pointers
// held elsewhere stay good. The lower part recurses, the upper one loops, which bounds the depth
// of the recursion by the lower parts only.
template <typename T>
void SortEntries(XArray<T*>& array, int low, int high) {
  while (high > low) {
    const CXMLToken* pivot = array[high];
    int i = low - 1;
    int j = high;
    int p = low - 1;
    int q = high;
    for (;;) {
      while (Order(array[++i], pivot) < 0) {
      }
      while (Order(array[--j], pivot) > 0) {
        if (j == low) break;
      }
      if (i >= j) break;
      SwapEntries(array, i, j);
      if (Order(array[i], pivot) == 0) SwapEntries(array, ++p, i);
      if (Order(array[j], pivot) == 0) SwapEntries(array, j, --q);
    }
    SwapEntries(array, i, high);
    j = i - 1;
    ++i;
    // The equal entry at p itself stays where it is and is sorted with the lower part.
    for (int k = low; k < p; ++k, --j) SwapEntries(array, k, j);
    for (int k = high - 1; k > q; --k, ++i) SwapEntries(array, i, k);
    SortEntries(array, low, j);
    low = i;
  }
}

// The lowest index in 0..`upper` of a sorted array whose name equals `key`, or -1. Once a match
// is found it steps back by halving towards the first of a run of equal names.
template <typename T>
int SearchEntries(const XArray<T*>& array, const CXMLToken& key, int upper) {
  int low = 0;
  int high = upper;
  while (low < high) {
    if (Order(array[low], &key) == 0) {
      if (low == 0 || Order(array[low - 1], &key) != 0) return low;
      high = low;
      low /= 2;
      continue;
    }
    const int mid = (low + high) / 2;
    if (Order(array[mid], &key) > 0) {
      high = mid == high ? high - 1 : mid;
    } else {
      low = mid == low ? low + 1 : mid;
    }
  }
  return Order(array[low], &key) == 0 ? low : -1;
}

template <typename T>
T* FindEntry(XArray<T*>& array, const T& key) {
  if (array.count == 0) return nullptr;
  if (!array.sorted) {
    array.sorted = true;
    SortEntries(array, 0, array.count - 1);
  }
  const int index = SearchEntries(array, key, array.count - 1);
  return index < 0 ? nullptr : array[index];
}

// Who holds the children. A child tag belongs to the tag it was built from, so that every tag
// the application gets is destroyed with the tree and never leaks, and stays good exactly as
// long as its parent. It is kept in the parent's `tags` as an owned record, but behind `count`,
// in the first slot that holds no record: ~CXMLTag's RemoveAll destroys every owned record up
// to `capacity`, while FindTag searches only the slots below `count`. `count` stays as it was
// (0: nothing in the library appends there), because a child found by name would be wrong:
// siblings share names, and NextTag must give each of them, and GetTag finds children without
// regard to case. Records are only ever added at the first empty slot, so the slots that hold
// records are one run from 0, and the first empty one is found by bisection.
void AdoptChild(XArray<CXMLTag*>& tags, CXMLTag* child) {
  const int count = tags.count;
  const bool sorted = tags.sorted;
  int low = count;
  int high = tags.capacity;
  while (low < high) {
    const int mid = low + (high - low) / 2;
    if (tags.entries[mid] != nullptr) {
      low = mid + 1;
    } else {
      high = mid;
    }
  }
  while (low < tags.capacity && tags.entries[low] != nullptr) ++low;  // never, but cheap
  tags.count = low;
  const int index = tags.Add(child, true);
  const bool held = index >= 0 && tags.entries[index] != nullptr;
  tags.count = count;
  tags.sorted = sorted;
  if (!held) {
    delete child;
    RaiseComError(E_OUTOFMEMORY);
  }
}

// Builds the tag for `child` of `parent`, held by `parent`.
CXMLTag* NewChild(CXMLTag* parent, const internal::NodePtr& child, const wchar_t* name) {
  CXMLTag* tag = new CXMLTag(parent, child, name);
  AdoptChild(parent->tags, tag);
  return tag;
}

}  // namespace

CXMLTag::CXMLTag(const wchar_t* name) : CXMLToken(name), parent(nullptr) {}

CXMLTag::CXMLTag(CInterfacePtr<IXMLDOMNode> node, const wchar_t* name)
    : CXMLToken(name), parent(nullptr), domNode(std::move(node)) {}

CXMLTag::CXMLTag(CXMLTag* parent, CInterfacePtr<IXMLDOMNode> node, const wchar_t* name)
    : CXMLToken(name), parent(parent), domNode(std::move(node)) {}

CXMLTag::CXMLTag(const CXMLTag& other)
    : CXMLToken(other),
      parent(other.parent),
      domNode(other.domNode),
      cursor(other.cursor),
      attributes(other.attributes),
      tags(other.tags) {}

// The old attributes and children are let go of (destroyed if this tag was their last holder)
// rather than kept for good, as the arrays' own assignment would. Everything of `other` is held
// first, because `other` may be one of the children about to go.
CXMLTag& CXMLTag::operator=(const CXMLTag& other) {
  if (this == &other) return *this;
  CXMLTag held(other);
  if (attributes.entries != held.attributes.entries) attributes.RemoveAll();
  if (tags.entries != held.tags.entries) tags.RemoveAll();
  CXMLToken::operator=(held);
  parent = held.parent;
  domNode = held.domNode;
  cursor = held.cursor;
  attributes = held.attributes;
  tags = held.tags;
  return *this;
}

CXMLTag::~CXMLTag() {
  attributes.RemoveAll();
  tags.RemoveAll();
  cursor.Reset();
  domNode.Reset();
}

CXMLTag::operator CXMLTag*() { return this; }

CXMLAttribute* CXMLTag::FindAttribute(const wchar_t* name) {
  const CXMLAttribute key(name);
  return FindEntry(attributes, key);
}

CXMLTag* CXMLTag::FindTag(const wchar_t* name) {
  const CXMLTag key(name);
  return FindEntry(tags, key);
}

CXMLAttribute* CXMLTag::GetAttribute(const wchar_t* name) {
  if (CXMLAttribute* cached = FindAttribute(name)) return cached;
  internal::NodePtr item = internal::NamedAttribute(domNode, name);
  if (item == nullptr) return nullptr;
  return new CXMLAttribute(this, std::move(item), name);
}

CXMLTag* CXMLTag::GetTag(const wchar_t* name) {
  if (CXMLTag* found = FindTag(name)) return found;
  for (internal::NodePtr child = internal::FirstChild(domNode); child != nullptr;
       child = internal::NextSibling(child)) {
    const _bstr_t childName = internal::NodeName(child);
    if (StrEqual(static_cast<const wchar_t*>(childName), name, false)) {
      return NewChild(this, child, name);
    }
  }
  return nullptr;
}

CXMLTag* CXMLTag::FirstTag() {
  cursor.Reset();
  if (domNode == nullptr) return nullptr;
  internal::NodePtr child = internal::FirstChild(domNode);
  if (child == nullptr) return nullptr;
  const _bstr_t childName = internal::NodeName(child);
  CXMLTag* tag = FindTag(childName);
  if (tag == nullptr) tag = NewChild(this, child, childName);
  cursor = std::move(child);
  return tag;
}

CXMLTag* CXMLTag::NextTag() {
  if (cursor == nullptr) return nullptr;
  // `cursor` keeps its value if the DOM fails here.
  internal::NodePtr next = internal::NextSibling(cursor);
  cursor = std::move(next);
  if (cursor == nullptr) return nullptr;
  const _bstr_t childName = internal::NodeName(cursor);
  if (CXMLTag* found = FindTag(childName)) return found;
  return NewChild(this, cursor, childName);
}

const wchar_t* CXMLTag::GetValue() {
  if (domNode == nullptr) return nullptr;
  return CXml::GetXMLTextValue(domNode);
}

void CXMLTag::Release() { domNode.Reset(); }

}  // namespace KVT
