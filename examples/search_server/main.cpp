// tern_search_server: a search service on TernCoreLib, configured by an XML file.
//
//   tern_search_server CONFIG.xml      runs until a STOP request or Ctrl+C
//   tern_search_server --version
//
// Exit status: 0 after a stop, 1 if it could not listen, 2 for a wrong command line or
// configuration (the cause on stderr).
#include <cstdio>
#include <string>

#include "examples/search_server/search_server.h"

#include <shellapi.h>  // CommandLineToArgvW; after TernCoreLib.h, which brings in <windows.h>.

int main() {
  int argc = 0;
  wchar_t** argv = ::CommandLineToArgvW(::GetCommandLineW(), &argc);
  const std::wstring argument = argv != nullptr && argc == 2 ? argv[1] : L"";
  if (argv != nullptr) ::LocalFree(argv);
  if (argument == L"--version") {
    std::printf("tern_search_server %s\n", TERN_VERSION);
    return 0;
  }
  if (argument.empty() || argument[0] == L'-') {
    std::fprintf(stderr, "usage: tern_search_server CONFIG.xml | --version\n");
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  search_server::Config config;
  std::string error;
  if (!search_server::LoadConfig(argument, &config, &error)) {
    std::fprintf(stderr, "tern_search_server: %s\n", error.c_str());
    return 2;
  }
  WSADATA wsa;
  if (::WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return 1;
  std::printf("tern_search_server: %d workers, %u folders\n", config.workers,
              static_cast<unsigned>(config.folders.size()));
  const int status = search_server::RunServer(config);
  ::WSACleanup();
  std::printf("tern_search_server: stopped\n");
  return status;
}
