// Prints the version resource of the TernCoreLib.dll that it loaded, and a search through it.
#include <cstdio>
#include <vector>

#include "TernCoreLib.h"

int main() {
  wchar_t path[MAX_PATH];
  HMODULE dll = ::GetModuleHandleW(L"TernCoreLib.dll");
  if (dll == nullptr || ::GetModuleFileNameW(dll, path, MAX_PATH) == 0) return 1;
  std::vector<char> info(::GetFileVersionInfoSizeW(path, nullptr));
  wchar_t* version = nullptr;
  UINT length = 0;
  if (info.empty() || !::GetFileVersionInfoW(path, 0, static_cast<DWORD>(info.size()), info.data()) ||
      !::VerQueryValueW(info.data(), L"\\StringFileInfo\\040904B0\\ProductVersion",
                        reinterpret_cast<void**>(&version), &length)) {
    return 1;
  }
  KVT::CSearchQuery<char> query;
  query.SetTerm("fox", 0, true);
  KVT::CBuffer<char> buffer;
  buffer = "a fox\nA FOX\nno";
  std::printf("TernCoreLib %ls, %lu found\n", version,
              buffer.Search(buffer.GetBuffer(), buffer.length, 1, query, nullptr, nullptr, '\n'));
  return 0;
}
