#include "xml/xml_tag.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "xml/xml.h"
#include "xml/xml_test_util.h"

namespace {

using KVT::CXMLAttribute;
using KVT::CXMLTag;
using xml_test::RaisedBy;

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
  KVT::CXml xml{xml_test::kConfig};
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

TEST(XmlTagTest, AKeyTagHasNoNode) {
  for (const wchar_t* name : {L"key", L"", static_cast<const wchar_t*>(nullptr)}) {
    SCOPED_TRACE(xml_test::Text(name));
    CXMLTag key(name);
    EXPECT_EQ(name != nullptr && *name != 0, key.GetBuffer() != nullptr);
    EXPECT_EQ(nullptr, key.FirstTag());
    EXPECT_EQ(nullptr, key.NextTag());
    EXPECT_EQ(nullptr, key.GetValue());
    EXPECT_EQ(E_POINTER, RaisedBy([&] { key.GetTag(L"key"); }));
    EXPECT_EQ(E_POINTER, RaisedBy([&] { key.GetAttribute(L"key"); }));
    key.Release();
  }
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

}  // namespace
