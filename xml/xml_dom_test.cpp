#include "xml/xml_dom.h"

#include <gtest/gtest.h>

#include "xml/com_ptr.h"
#include "xml/xml_test_util.h"

namespace {

using KVT::CInterfacePtr;
using xml_test::RaisedBy;
namespace dom = KVT::xml_dom;

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

TEST(XmlDomTest, CreationReportsByItsResult) {
  for (const wchar_t* progId : {dom::kProgId40, dom::kProgId60, L"Msxml2.DOMDocument.99.0",
                                 static_cast<const wchar_t*>(nullptr)}) {
    SCOPED_TRACE(xml_test::Text(progId));
    const bool exists = progId == dom::kProgId40 || progId == dom::kProgId60;
    dom::DocumentPtr document;
    HRESULT hr = S_OK;
    EXPECT_EQ(S_OK, RaisedBy([&] { hr = dom::CreateXmlDocument(progId, document); }));
    EXPECT_EQ(exists, hr == S_OK) << std::hex << hr;
    EXPECT_EQ(exists, document != nullptr);
  }
}

// The properties that a 6.0 document gets; one that the DOM does not know is refused with
// E_FAIL (Wine and MSXML agree on that code).
TEST(XmlDomTest, PropertiesOfASixDocument) {
  dom::DocumentPtr document;
  ASSERT_EQ(S_OK, dom::CreateXmlDocument(dom::kProgId60, document));
  EXPECT_EQ(S_OK, RaisedBy([&] { dom::SetProperty(document, L"ProhibitDTD", false); }));
  EXPECT_EQ(S_OK, RaisedBy([&] { dom::SetProperty(document, L"ResolveExternals", true); }));
  EXPECT_TRUE(dom::LoadText(document, xml_test::kConfig));
  EXPECT_EQ(E_FAIL, RaisedBy([&] { dom::SetProperty(document, L"NoSuchProperty", true); }));
  EXPECT_EQ(E_POINTER, RaisedBy([] { dom::SetProperty(nullptr, L"ProhibitDTD", false); }));
  EXPECT_EQ(E_POINTER, RaisedBy([] { dom::LoadText(nullptr, L"<a/>"); }));
}

}  // namespace
