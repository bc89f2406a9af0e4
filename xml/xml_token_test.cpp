#include "xml/xml_token.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "xml/xml.h"
#include "xml/xml_test_util.h"

namespace {

using KVT::CXMLAttribute;
using KVT::CXMLToken;
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

TEST(XmlAttributeTest, AKeyNeverAsksTheDom) {
  CXMLAttribute key(L"port");
  EXPECT_EQ(nullptr, key.domNode.Get());
  EXPECT_EQ(nullptr, key.GetValue());
  EXPECT_EQ(0, key.ToInt());
  EXPECT_EQ(0, key.ToLong());
  CXMLAttribute copy(L"other");
  copy = key;
  copy = copy;
  EXPECT_EQ(key.GetBuffer(), copy.GetBuffer()) << "copies share the name";
}

// Values as the DOM gives them, read as text and as numbers the way _wtoi reads them.
TEST(XmlAttributeTest, ValuesAsTextAndNumbers) {
  KVT::CXml xml(xml_test::kConfig);
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

}  // namespace
