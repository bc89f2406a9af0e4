#ifndef TERNCORELIB_XML_XML_TEST_UTIL_H_
#define TERNCORELIB_XML_XML_TEST_UTIL_H_

// Documents and helpers shared by the XML tests.

#include <comdef.h>

#include <string>

namespace xml_test {

// A configuration file as applications write them: a DTD with an entity, comments, a processing
// instruction, CDATA, names in mixed case, several children of one name, text between elements,
// and two values typed through the Microsoft datatypes namespace.
inline constexpr const wchar_t* kConfig =
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

inline std::wstring Text(const wchar_t* text) { return text != nullptr ? text : L"<null>"; }

}  // namespace xml_test

#endif  // TERNCORELIB_XML_XML_TEST_UTIL_H_
