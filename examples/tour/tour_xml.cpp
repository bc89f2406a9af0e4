// Reading XML: a small configuration document, read by paths of names, by attribute and by
// walking the children of a section.
#include "examples/tour/tour.h"

#include <cstdio>

// Brings <comdef.h> (_com_error) with the XML classes, after a lean <windows.h>: a <comdef.h>
// of our own first would pull in the old <winsock.h> ahead of the socket classes' <winsock2.h>.
#include "TernCoreLib.h"

namespace {

constexpr const wchar_t* kSettings =
    L"<?xml version='1.0'?>\n"
    L"<Settings>\n"
    L"  <!-- where the service listens -->\n"
    L"  <Listener host='127.0.0.1' port='8080' backlog='16'/>\n"
    L"  <Log level='info'>C:\\logs\\tern.log</Log>\n"
    L"  <Users><User name='ada'/><User name='brian'/><User name='grace'/></Users>\n"
    L"</Settings>\n";

bool Check(bool ok, const char* what) {
  if (!ok) std::printf("   !! unexpected: %s\n", what);
  return ok;
}

}  // namespace

bool TourXml() {
  TourHeading("XML: a configuration document read by path");
  bool ok = true;
  try {
    KVT::CXml xml(kSettings);
    KVT::CXMLTag* root = xml.GetRoot();
    if (!Check(root != nullptr, "the document did not load")) return false;
    std::printf("root element: %ls\n", root->GetBuffer());

    // Names are matched without regard to case on the way, attributes exactly.
    KVT::CXMLAttribute* port = xml.FindAttributeV(L"settings", L"listener", L"port", nullptr);
    KVT::CXMLAttribute* host = xml.FindAttributeV(L"Settings", L"Listener", L"host", nullptr);
    ok &= Check(port != nullptr && host != nullptr, "the listener's attributes are missing");
    if (port != nullptr && host != nullptr) {
      std::printf("listener: %ls, port %d\n", host->GetValue(), port->ToInt());
      ok &= Check(port->ToInt() == 8080, "the port should read 8080");
    }

    KVT::CXMLTag* log = xml.FindTagV(L"Settings", L"Log", nullptr);
    if (log != nullptr) {
      std::printf("log file: %ls (level %ls)\n", log->GetValue(),
                  log->GetAttribute(L"level")->GetValue());
    }
    ok &= Check(xml.FindTagV(L"Settings", L"Mail", nullptr) == nullptr,
                "a missing section should give null");

    // Every child comes back, also those of one name; the tags belong to the tree.
    KVT::CXMLTag* users = xml.FindTagV(L"Settings", L"Users", nullptr);
    int count = 0;
    std::printf("users:");
    for (KVT::CXMLTag* user = users != nullptr ? users->FirstTag() : nullptr; user != nullptr;
         user = users->NextTag()) {
      std::printf(" %ls", user->GetAttribute(L"name")->GetValue());
      ++count;
    }
    std::printf("\n");
    ok &= Check(count == 3, "three users expected");

    ok &= Check(!xml.LoadXML(L"<Settings><unclosed></Settings>") && xml.GetRoot() == nullptr,
                "a text that does not parse should leave no root");
    std::printf("a broken text: LoadXML gives false, GetRoot null\n");
  } catch (const _com_error& error) {
    std::printf("   !! the DOM refused: 0x%08lX\n", static_cast<unsigned long>(error.Error()));
    return false;
  }
  return ok;
}
