#include "xml/xml.h"

#include <gtest/gtest.h>

#include <string>

#include "xml/xml_test_util.h"

namespace {

using KVT::CXml;
using KVT::CXMLAttribute;
using KVT::CXMLTag;
using xml_test::RaisedBy;

TEST(XmlTest, LoadingAndTheOldTree) {
  CXml xml(xml_test::kConfig);
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
}

TEST(XmlTest, WithoutADocumentLoadsRaise) {
  CXml xml(L"<a/>");
  ASSERT_NE(nullptr, xml.GetRoot());
  xml.document = nullptr;  // as when neither class could be created
  EXPECT_FALSE(xml.LoadXML(nullptr));
  EXPECT_NE(nullptr, xml.GetRoot());
  EXPECT_EQ(E_POINTER, RaisedBy([&] { xml.LoadXML(L"<a/>"); }));
  EXPECT_EQ(nullptr, xml.GetRoot()) << "the old tree went before the call failed";
}

TEST(XmlTest, PathWalks) {
  CXml xml(xml_test::kConfig);
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
    SCOPED_TRACE(xml_test::Text(c.first) + L"/" + xml_test::Text(c.second) + L"/" +
                 xml_test::Text(c.third));
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
    EXPECT_EQ(xml_test::Text(c.attribute),
              xml_test::Text(attribute != nullptr ? attribute->GetValue() : nullptr));
  }
  CXml empty;
  EXPECT_EQ(nullptr, empty.FindTagV(L"Config", nullptr));
  EXPECT_EQ(nullptr, empty.FindAttributeV(L"Config", L"version", nullptr));
}

TEST(XmlTest, ValuesThatAreNotText) {
  CXml xml(xml_test::kConfig);
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
  EXPECT_EQ(DISP_E_TYPEMISMATCH, RaisedBy([&] { CXMLAttribute(bad, bad->domNode, L"v").ToInt(); }));
}

TEST(XmlTest, CopiesShareTheTreeAndDestroyItOnce) {
  auto* original = new CXml(xml_test::kConfig);
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
