// The XML view: the DOM access, tokens and attributes, tags and the document.
#include "xml/xml.h"

#include <gtest/gtest.h>

#include <comdef.h>

#include <algorithm>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "xml/com_ptr.h"
#include "xml/internal/xml_dom.h"
#include "xml/xml_tag.h"
#include "xml/xml_token.h"

namespace {

using KVT::CInterfacePtr;
using KVT::CXml;
using KVT::CXMLAttribute;
using KVT::CXMLTag;
using KVT::CXMLToken;
namespace dom = KVT::internal;

// A configuration file as applications write them: a DTD with an entity, comments, a processing
// instruction, CDATA, names in mixed case, several children of one name, text between elements,
// and two values typed through the Microsoft datatypes namespace.
constexpr const wchar_t* kConfig =
    L"<?xml version=\"1.0\"?>\n"
    L"<!DOCTYPE Config [\n"
    L"  <!ENTITY product \"Tern\">\n"
    L"]>\n"
    L"<!-- deployment settings -->\n"
    L"<Config version=\"3\" build=\"17b\">\n"
    L"  <?reload interval=\"5\"?>\n"
    L"  <Server Name=\"alpha\" Port=\"8080\">\n"
    L"    <Log level=\"debug\">&product; log</Log>\n"
    L"  </Server>\n"
    L"  <server Name=\"beta\" Port=\"8081\"/>\n"
    L"  <SERVER Name=\"gamma\"/>\n"
    L"  <Paths>\n"
    L"    <path>C:\\data</path>\n"
    L"    <path>D:\\spool</path>\n"
    L"    <path><![CDATA[<raw & unescaped>]]></path>\n"
    L"  </Paths>\n"
    L"  <!-- limits -->\n"
    L"  <Limits max=\"2147483647\" min=\"-2147483648\" pad=\" &#9;+12 apples\" word=\"twelve\"\n"
    L"          empty=\"\" xmlns:dt=\"urn:schemas-microsoft-com:datatypes\">\n"
    L"    <count dt:dt=\"int\">42</count>\n"
    L"    <bad dt:dt=\"int\">forty-two</bad>\n"
    L"  </Limits>\n"
    L"  trailing text\n"
    L"</Config>\n";

// The HRESULT of the _com_error that `call` raises, or S_OK if it raises none.
template <typename Call>
HRESULT RaisedBy(Call call) {
  try {
    call();
  } catch (const _com_error& error) {
    return error.Error();
  }
  return S_OK;
}

std::wstring Text(const wchar_t* text) { return text != nullptr ? text : L"<null>"; }

// An IUnknown that counts its references and notes when the last one goes.
class CountedObject : public IUnknown {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** out) override {
    *out = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
  ULONG STDMETHODCALLTYPE Release() override {
    if (--references == 0) released = true;
    return references;
  }
  ULONG references = 1;  // The test's own.
  bool released = false;
};

TEST(InterfacePtrTest, CountsReferencesAndRaisesOnNull) {
  CountedObject object;
  {
    CInterfacePtr<IUnknown> first(&object);
    CInterfacePtr<IUnknown> copy(first);
    EXPECT_EQ(3u, object.references);
    copy = first;  // the same object: no release in between
    first = copy;
    EXPECT_EQ(3u, object.references);
    copy = nullptr;
    EXPECT_EQ(2u, object.references);
    CInterfacePtr<IUnknown> moved(std::move(first));
    EXPECT_EQ(2u, object.references);
    EXPECT_EQ(E_POINTER, RaisedBy([&] { first->AddRef(); }));
  }
  EXPECT_EQ(1u, object.references);
  EXPECT_FALSE(object.released);
  // A sole reference assigned its own value survives: the new reference comes first.
  CInterfacePtr<IUnknown> sole = CInterfacePtr<IUnknown>::Adopt(&object);
  CInterfacePtr<IUnknown>& alias = sole;
  sole = alias;
  EXPECT_FALSE(object.released);
}

// Oracle: the ids that MinGW's import library does carry.
TEST(XmlDomTest, InterfaceIdsMatchThePublishedOnes) {
  EXPECT_TRUE(IsEqualIID(IID_IXMLDOMNode, dom::kIidXmlDomNode));
  EXPECT_TRUE(IsEqualIID(IID_IXMLDOMDocument, dom::kIidXmlDomDocument));
  EXPECT_TRUE(IsEqualIID(IID_IXMLDOMNamedNodeMap, dom::kIidXmlDomNamedNodeMap));
  EXPECT_TRUE(IsEqualIID(IID_IXMLDOMElement, dom::kIidXmlDomElement));
}

// Creation reports by its result; the properties that a 6.0 document gets are set, and one that
// the DOM does not know is refused with E_FAIL (Wine and MSXML agree on that code).
TEST(XmlDomTest, CreationReportsByItsResultAndPropertiesRaise) {
  for (const wchar_t* progId : {dom::kProgId40, L"Msxml2.DOMDocument.99.0",
                                 static_cast<const wchar_t*>(nullptr), dom::kProgId60}) {
    SCOPED_TRACE(Text(progId));
    const bool exists = progId == dom::kProgId40 || progId == dom::kProgId60;
    dom::DocumentPtr document;
    HRESULT hr = S_OK;
    EXPECT_EQ(S_OK, RaisedBy([&] { hr = dom::CreateXmlDocument(progId, document); }));
    EXPECT_EQ(exists, hr == S_OK) << std::hex << hr;
    EXPECT_EQ(exists, document != nullptr);
  }
  dom::DocumentPtr document;
  ASSERT_EQ(S_OK, dom::CreateXmlDocument(dom::kProgId60, document));
  EXPECT_EQ(S_OK, RaisedBy([&] { dom::SetProperty(document, L"ProhibitDTD", false); }));
  EXPECT_EQ(S_OK, RaisedBy([&] { dom::SetProperty(document, L"ResolveExternals", true); }));
  EXPECT_TRUE(dom::LoadText(document, kConfig));
  EXPECT_EQ(E_FAIL, RaisedBy([&] { dom::SetProperty(document, L"NoSuchProperty", true); }));
  EXPECT_EQ(E_POINTER, RaisedBy([] { dom::SetProperty(nullptr, L"ProhibitDTD", false); }));
  EXPECT_EQ(E_POINTER, RaisedBy([] { dom::LoadText(nullptr, L"<a/>"); }));
}

using Name = std::optional<std::wstring>;  // nullopt: a token without a block

// A token for `name`; an empty wstring gives a token that has a block holding an empty text.
CXMLToken MakeToken(const Name& name) {
  if (!name) return CXMLToken(nullptr);
  if (!name->empty()) return CXMLToken(name->c_str());
  CXMLToken token(L"x");
  token.Reset();
  return token;
}

// Oracle: no block before everything, else std::wstring's order (unsigned code units).
int ReferenceOrder(const Name& a, const Name& b) {
  if (!a || !b) return a ? 1 : (b ? -1 : 0);
  const int order = a->compare(*b);
  return order < 0 ? -1 : (order > 0 ? 1 : 0);
}

void CheckOperators(const Name& a, const Name& b) {
  const CXMLToken left = MakeToken(a);
  const CXMLToken right = MakeToken(b);
  const int order = ReferenceOrder(a, b);
  EXPECT_EQ(order == 0, left == right);
  EXPECT_EQ(order != 0, left != right);
  EXPECT_EQ(order < 0, left < right);
  EXPECT_EQ(order <= 0, left <= right);
  EXPECT_EQ(order > 0, left > right);
  EXPECT_EQ(order >= 0, left >= right);
}

// Random names over an alphabet of upper and lower case and high code units, with names without
// a block and names whose block holds an empty text among them.
TEST(XmlTokenTest, ComparisonAgainstStdWstring) {
  EXPECT_EQ(nullptr, CXMLToken(L"").GetBuffer()) << "an empty name has no block";
  std::mt19937 random(20240611);
  const wchar_t alphabet[] = {L'a', L'b', L'A', L'\x7fff', L'\x8000', L'\xfffe'};
  auto name = [&] {
    std::wstring text(random() % 4, L' ');
    for (wchar_t& unit : text) unit = alphabet[random() % 6];
    return text.empty() && random() % 2 ? Name() : Name(text);
  };
  for (int round = 0; round < 3000; ++round) CheckOperators(name(), name());
}

// Values as the DOM gives them, read as text and as numbers the way _wtoi reads them.
TEST(XmlAttributeTest, ValuesAsTextAndNumbers) {
  KVT::CXml xml(kConfig);
  ASSERT_NE(nullptr, xml.GetRoot());
  KVT::CXMLTag* limits = xml.FindTagV(L"config", L"Limits", nullptr);
  ASSERT_NE(nullptr, limits);
  struct Case {
    const wchar_t* name;
    const wchar_t* text;
    int number;
  } cases[] = {{L"max", L"2147483647", 2147483647},
               {L"min", L"-2147483648", -2147483647 - 1},
               {L"pad", L" \t+12 apples", 12},
               {L"word", L"twelve", 0},
               {L"empty", L"", 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    CXMLAttribute* attribute = limits->GetAttribute(c.name);
    ASSERT_NE(nullptr, attribute);
    EXPECT_STREQ(c.text, attribute->GetValue());
    EXPECT_EQ(c.number, attribute->ToInt());
    EXPECT_EQ(c.number, attribute->ToLong());
  }
  // A copy reads the same node, and goes without taking the tag's attribute along.
  CXMLAttribute copy(*limits->GetAttribute(L"max"));
  EXPECT_EQ(limits, copy.parent);
  EXPECT_EQ(2147483647, copy.ToInt());
}

std::wstring NameOf(const KVT::CXMLToken* token) {
  return token != nullptr && token->GetBuffer() != nullptr ? token->GetBuffer() : L"";
}

// The names that FirstTag and NextTag give, in order.
std::vector<std::wstring> ChildNames(CXMLTag* tag) {
  std::vector<std::wstring> names;
  for (CXMLTag* child = tag->FirstTag(); child != nullptr; child = tag->NextTag()) {
    names.push_back(NameOf(child));
  }
  return names;
}

// Fills a key tag with attributes of random names (many duplicates), then looks every name up.
// Oracle: a sorted copy of the names. A name in the array must come back as the first of its run
// in the sorted array; any other must miss the cache and then raise E_POINTER, as a key tag has
// no node to ask.
TEST(XmlTagTest, SortAndSearchAgainstAReference) {
  std::mt19937 random(7);
  for (int size : {1, 2, 3, 5, 17, 100, 101, 250}) {
    for (int alphabet : {1, 3, 26}) {
      SCOPED_TRACE(testing::Message() << size << " names over " << alphabet << " letters");
      CXMLTag tag(L"key");
      std::vector<std::wstring> names;
      for (int i = 0; i < size; ++i) {
        std::wstring name(1 + random() % 3, L'a');
        for (wchar_t& unit : name) unit = static_cast<wchar_t>(L'a' + random() % alphabet);
        names.push_back(name);
        new CXMLAttribute(&tag, nullptr, name.c_str());  // enters tag.attributes, which owns it
      }
      ASSERT_EQ(size, tag.attributes.count);
      std::vector<std::wstring> sorted = names;
      std::sort(sorted.begin(), sorted.end());
      std::set<std::wstring> queries(names.begin(), names.end());
      queries.insert({L"", L"A", L"zzzz", L"ab\x8000"});
      for (const std::wstring& query : queries) {
        SCOPED_TRACE(query);
        CXMLAttribute* found = nullptr;
        const HRESULT hr = RaisedBy([&] { found = tag.GetAttribute(query.c_str()); });
        const auto first = std::lower_bound(sorted.begin(), sorted.end(), query);
        if (first == sorted.end() || *first != query || query.empty()) {
          EXPECT_EQ(E_POINTER, hr);
          continue;
        }
        ASSERT_EQ(S_OK, hr);
        ASSERT_TRUE(tag.attributes.sorted);
        EXPECT_EQ(tag.attributes[static_cast<int>(first - sorted.begin())], found);
      }
      for (int i = 0; i < size; ++i) ASSERT_EQ(sorted[i], NameOf(tag.attributes[i])) << i;
      EXPECT_EQ(size, tag.attributes.count);
    }
  }
}

class XmlTagDocumentTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(nullptr, root); }
  KVT::CXml xml{kConfig};
  CXMLTag* root = xml.GetRoot();
};

TEST_F(XmlTagDocumentTest, AttributeCache) {
  CXMLTag* server = root->GetTag(L"Server");
  ASSERT_NE(nullptr, server);
  CXMLAttribute* name = server->GetAttribute(L"Name");
  ASSERT_NE(nullptr, name);
  EXPECT_EQ(name, server->GetAttribute(L"Name"));
  EXPECT_EQ(server, name->parent);
  EXPECT_EQ(nullptr, server->GetAttribute(L"name")) << "names are exact";
  EXPECT_EQ(nullptr, server->GetAttribute(L"NAME"));
  CXMLAttribute* port = server->GetAttribute(L"Port");
  EXPECT_EQ(2, server->attributes.count) << "a miss caches nothing";

  server->Release();
  server->Release();
  EXPECT_EQ(nullptr, server->domNode.Get());
  EXPECT_EQ(name, server->GetAttribute(L"Name")) << "the cache outlives the node";
  EXPECT_EQ(port, server->GetAttribute(L"Port"));
  EXPECT_STREQ(L"alpha", name->GetValue());
  EXPECT_EQ(8080, port->ToInt());
  EXPECT_EQ(E_POINTER, RaisedBy([&] { server->GetAttribute(L"Other"); }));
  EXPECT_EQ(E_POINTER, RaisedBy([&] { server->GetTag(L"Log"); }));
  EXPECT_EQ(nullptr, server->GetValue());
}

TEST_F(XmlTagDocumentTest, ChildrenByNameIgnoreCase) {
  for (const wchar_t* spelling : {L"server", L"SERVER", L"Server", L"sErVeR"}) {
    SCOPED_TRACE(spelling);
    CXMLTag* server = root->GetTag(spelling);
    ASSERT_NE(nullptr, server);
    EXPECT_STREQ(spelling, server->GetBuffer()) << "named as the caller spelled it";
    EXPECT_STREQ(L"alpha", server->GetAttribute(L"Name")->GetValue()) << "always the first";
    EXPECT_EQ(root, server->parent);
  }
  EXPECT_EQ(nullptr, root->GetTag(L"Log")) << "children only";
  EXPECT_EQ(nullptr, root->GetTag(L"servers"));
  EXPECT_EQ(nullptr, root->GetTag(nullptr));
  EXPECT_NE(nullptr, root->GetTag(L"#comment")) << "every node type under its DOM name";
  EXPECT_NE(nullptr, root->GetTag(L"reload"));
  EXPECT_EQ(0, root->tags.count) << "children are held where the name search does not look";
}

TEST_F(XmlTagDocumentTest, IterationGivesEveryChild) {
  EXPECT_EQ(nullptr, root->NextTag()) << "before FirstTag";
  const std::vector<std::wstring> expected = {
      L"reload", L"Server", L"server", L"SERVER", L"Paths", L"#comment", L"Limits", L"#text"};
  EXPECT_EQ(expected, ChildNames(root));
  EXPECT_EQ(nullptr, root->NextTag()) << "after the end";
  EXPECT_EQ(nullptr, root->NextTag());

  CXMLTag* paths = root->GetTag(L"paths");
  ASSERT_NE(nullptr, paths);
  std::vector<std::wstring> values;
  CXMLTag* first = paths->FirstTag();
  for (CXMLTag* path = first; path != nullptr; path = paths->NextTag()) {
    EXPECT_NE(nullptr, paths->GetTag(L"PATH")) << "GetTag leaves the iteration alone";
    values.push_back(path->GetValue());
  }
  const std::vector<std::wstring> expectedValues = {L"C:\\data", L"D:\\spool",
                                                    L"<raw & unescaped>"};
  EXPECT_EQ(expectedValues, values);
  EXPECT_EQ(L"path", NameOf(paths->FirstTag())) << "FirstTag starts again";
  EXPECT_STREQ(L"C:\\data", first->GetValue()) << "a tag held stays good with its parent";

  CXMLTag* text = root->GetTag(L"#TEXT");
  ASSERT_NE(nullptr, text);
  EXPECT_EQ(nullptr, text->GetAttribute(L"Name")) << "a text node has no attribute map";
  EXPECT_EQ(nullptr, text->FirstTag());
  EXPECT_STREQ(L"Tern log", root->GetTag(L"server")->GetTag(L"log")->GetValue());
}

// Tags and attributes built from a name alone (the keys of the caches) have no node: they read
// as empty and never ask the DOM, where a tag's lookups raise.
TEST(XmlTagTest, KeysHaveNoNode) {
  for (const wchar_t* name : {L"key", L"", static_cast<const wchar_t*>(nullptr)}) {
    SCOPED_TRACE(Text(name));
    CXMLTag key(name);
    EXPECT_EQ(name != nullptr && *name != 0, key.GetBuffer() != nullptr);
    EXPECT_EQ(nullptr, key.FirstTag());
    EXPECT_EQ(nullptr, key.NextTag());
    EXPECT_EQ(nullptr, key.GetValue());
    EXPECT_EQ(E_POINTER, RaisedBy([&] { key.GetTag(L"key"); }));
    EXPECT_EQ(E_POINTER, RaisedBy([&] { key.GetAttribute(L"key"); }));
    key.Release();
  }
  CXMLAttribute key(L"port");
  EXPECT_EQ(nullptr, key.domNode.Get());
  EXPECT_EQ(nullptr, key.GetValue());
  EXPECT_EQ(0, key.ToInt() + key.ToLong());
  CXMLAttribute copy(L"other");
  copy = key;
  copy = copy;
  EXPECT_EQ(key.GetBuffer(), copy.GetBuffer()) << "copies share the name";
}

// Copies share the caches, released by the last holder. Assigning a tag its own child: the
// target is the child's only holder, and must not destroy
// the source before it has taken it over.
TEST_F(XmlTagDocumentTest, AssignmentFromOwnChild) {
  CXMLTag* server = root->GetTag(L"server");
  CXMLAttribute* name = server->GetAttribute(L"Name");
  {
    CXMLTag copy(*server);
    EXPECT_EQ(name, copy.GetAttribute(L"Name")) << "copies share the cache";
  }
  EXPECT_STREQ(L"alpha", name->GetValue()) << "the copy went without the shared cache";
  CXMLTag own(root->domNode, L"Config");
  own = *own.GetTag(L"server")->GetTag(L"log");
  EXPECT_STREQ(L"log", own.GetBuffer());
  EXPECT_STREQ(L"Tern log", own.GetValue());
  EXPECT_STREQ(L"debug", own.GetAttribute(L"level")->GetValue());
}

TEST(XmlTest, LoadingAndTheOldTreeWithAndWithoutADocument) {
  CXml xml(kConfig);
  EXPECT_FALSE(xml.version6) << "assumes the 4.0 document exists, as under Wine";
  CXMLTag* root = xml.GetRoot();
  ASSERT_NE(nullptr, root);
  EXPECT_STREQ(L"Config", root->GetBuffer());
  EXPECT_EQ(nullptr, root->parent);

  EXPECT_FALSE(xml.LoadXML(nullptr));
  EXPECT_EQ(root, xml.GetRoot()) << "a null text keeps the old tree";
  EXPECT_FALSE(xml.LoadXML(L"<Config><open></Config>"));
  EXPECT_EQ(nullptr, xml.GetRoot()) << "a bad text takes the old tree with it";
  EXPECT_FALSE(xml.LoadXML(L""));
  EXPECT_TRUE(xml.LoadXML(L"<a b='1'/>"));
  EXPECT_STREQ(L"1", xml.FindAttributeV(L"A", L"b", nullptr)->GetValue());
  xml.Reset();
  EXPECT_EQ(nullptr, xml.GetRoot());
  xml.Reset();

  EXPECT_EQ(nullptr, CXml(nullptr).GetRoot());
  EXPECT_EQ(nullptr, CXml(L"no xml").GetRoot());
  CXml empty;
  EXPECT_NE(nullptr, empty.document.Get());
  EXPECT_EQ(nullptr, empty.GetRoot());

  ASSERT_TRUE(xml.LoadXML(L"<a/>"));
  xml.document = nullptr;  // as when neither class could be created
  EXPECT_FALSE(xml.LoadXML(nullptr));
  EXPECT_NE(nullptr, xml.GetRoot());
  EXPECT_EQ(E_POINTER, RaisedBy([&] { xml.LoadXML(L"<a/>"); }));
  EXPECT_EQ(nullptr, xml.GetRoot()) << "the old tree went before the call failed";
}

TEST(XmlTest, PathWalks) {
  CXml xml(kConfig);
  CXMLTag* root = xml.GetRoot();
  ASSERT_NE(nullptr, root);
  struct Case {
    const wchar_t* first;
    const wchar_t* second;
    const wchar_t* third;
    const wchar_t* tag;        // name of FindTagV's tag, "root" for the root itself, null
    const wchar_t* attribute;  // value of FindAttributeV's attribute, or null
  } cases[] = {
      {nullptr, L"Server", nullptr, nullptr, nullptr},
      {L"Config", nullptr, nullptr, L"root", nullptr},
      {L"CONFIG", nullptr, nullptr, L"root", nullptr},
      {L"Settings", L"Server", nullptr, L"root", nullptr},
      {L"Config", L"version", nullptr, nullptr, L"3"},
      {L"config", L"server", L"Name", nullptr, L"alpha"},
      {L"config", L"server", L"name", nullptr, nullptr},
      {L"config", L"Server", L"Log", L"Log", nullptr},
      {L"config", L"Missing", L"Log", nullptr, nullptr},
      {L"config", L"Server/Log", nullptr, nullptr, nullptr},
      {L"config", L"paths", L"PATH", L"PATH", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Text(c.first) + L"/" + Text(c.second) + L"/" +
                 Text(c.third));
    CXMLTag* tag = xml.FindTagV(c.first, c.second, c.third, nullptr);
    if (c.tag == nullptr) {
      EXPECT_EQ(nullptr, tag);
    } else if (std::wstring(c.tag) == L"root") {
      EXPECT_EQ(root, tag);
    } else {
      ASSERT_NE(nullptr, tag);
      EXPECT_STREQ(c.tag, tag->GetBuffer());
    }
    CXMLAttribute* attribute = xml.FindAttributeV(c.first, c.second, c.third, nullptr);
    EXPECT_EQ(Text(c.attribute),
              Text(attribute != nullptr ? attribute->GetValue() : nullptr));
  }
  CXml empty;
  EXPECT_EQ(nullptr, empty.FindTagV(L"Config", nullptr));
  EXPECT_EQ(nullptr, empty.FindAttributeV(L"Config", L"version", nullptr));
}

TEST(XmlTest, ValuesThatAreNotText) {
  CXml xml(kConfig);
  CXMLTag* count = xml.FindTagV(L"Config", L"Limits", L"count", nullptr);
  ASSERT_NE(nullptr, count);
  EXPECT_EQ(nullptr, count->GetValue()) << "a typed int is no text";
  EXPECT_EQ(nullptr, CXml::GetXMLTextValue(count->domNode));
  EXPECT_EQ(E_POINTER, RaisedBy([] { CXml::GetXMLTextValue(nullptr); }));
  // The DOM refuses a typed value that does not convert (assumes DISP_E_TYPEMISMATCH, as both
  // Wine and MSXML give).
  CXMLTag* bad = xml.FindTagV(L"Config", L"Limits", L"bad", nullptr);
  ASSERT_NE(nullptr, bad);
  EXPECT_EQ(DISP_E_TYPEMISMATCH, RaisedBy([&] { bad->GetValue(); }));
  // Built with new: the constructor enters the attribute in the tag, which deletes it.
  auto* value = new CXMLAttribute(bad, bad->domNode, L"v");
  EXPECT_EQ(DISP_E_TYPEMISMATCH, RaisedBy([&] { value->ToInt(); }));
}

TEST(XmlTest, CopiesShareTheTreeAndDestroyItOnce) {
  auto* original = new CXml(kConfig);
  CXMLTag* root = original->GetRoot();
  CXml copy(*original);
  CXml assigned(L"<other/>");
  assigned = copy;
  EXPECT_EQ(root, copy.GetRoot());
  EXPECT_EQ(root, assigned.GetRoot());
  delete original;
  copy.Reset();
  EXPECT_STREQ(L"3", assigned.FindAttributeV(L"Config", L"version", nullptr)->GetValue())
      << "the last holder still has the tree, node included";
  assigned = assigned;
  EXPECT_EQ(root, assigned.GetRoot());
}

}  // namespace
