// The configuration file:
//
//   <SearchServer>
//     <Listen address="127.0.0.1" port="5556"/>   address optional ("any": every address)
//     <Workers count="4"/>                         optional, 1 to 64
//     <Folder name="docs" path="C:\data\docs"/>    one or more; names of letters, digits, . _ -
//   </SearchServer>
#include <cstdio>

#include "examples/common/owners.h"
#include "examples/search_server/search_server.h"

namespace search_server {
namespace {

bool ReadFileBytes(const std::wstring& file, std::string* bytes) {
  tern_example::Handle handle(::CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                         OPEN_EXISTING, 0, nullptr));
  LARGE_INTEGER size;
  if (!tern_example::IsOpen(handle) || !::GetFileSizeEx(handle.get(), &size) ||
      size.QuadPart > (1 << 20)) {
    return false;
  }
  bytes->resize(static_cast<std::size_t>(size.QuadPart));
  DWORD read = 0;
  return bytes->empty() ||
         (::ReadFile(handle.get(), &(*bytes)[0], static_cast<DWORD>(bytes->size()), &read,
                     nullptr) &&
          read == bytes->size());
}

// The value of an attribute as a copy (GetValue's text lives in a temporary-string slot), or
// `fallback` when there is none.
std::wstring Value(KVT::CXMLAttribute* attribute, const wchar_t* fallback) {
  const wchar_t* value = attribute != nullptr ? attribute->GetValue() : nullptr;
  return value != nullptr ? value : fallback;
}

// A whole decimal number in [low, high]; CXMLAttribute::ToInt would take "80x" as 80.
bool ParseNumber(const std::wstring& text, int low, int high, int* number) {
  if (text.empty() || text.size() > 9) return false;
  int value = 0;
  for (wchar_t c : text) {
    if (c < L'0' || c > L'9') return false;
    value = value * 10 + (c - L'0');
  }
  if (value < low || value > high) return false;
  *number = value;
  return true;
}

bool IsFolderName(const std::string& name) {
  if (name.empty() || name.size() > 64 || name == "." || name == "..") return false;
  for (char c : name) {
    const bool alnum = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    if (!alnum && c != '.' && c != '_' && c != '-') return false;
  }
  return true;
}

bool ReadFolders(KVT::CXMLTag* root, Config* config, std::string* error) {
  for (KVT::CXMLTag* tag = root->FirstTag(); tag != nullptr; tag = root->NextTag()) {
    const std::wstring kind = tag->GetBuffer() != nullptr ? tag->GetBuffer() : L"";
    if (kind == L"#text" || kind == L"#comment") continue;
    if (_wcsicmp(kind.c_str(), L"Listen") == 0 || _wcsicmp(kind.c_str(), L"Workers") == 0) continue;
    if (_wcsicmp(kind.c_str(), L"Folder") != 0) {
      *error = "unknown element <" + WideToUtf8(kind) + ">";
      return false;
    }
    Folder folder;
    folder.name = WideToUtf8(Value(tag->GetAttribute(L"name"), L""));
    const std::wstring path = Value(tag->GetAttribute(L"path"), L"");
    if (!IsFolderName(folder.name)) {
      *error =
          "a folder needs a name of letters, digits, '.', '_' and '-': \"" + folder.name + "\"";
      return false;
    }
    for (const Folder& other : config->folders) {
      if (other.name == folder.name) {
        *error = "the folder name \"" + folder.name + "\" is used twice";
        return false;
      }
    }
    wchar_t full[MAX_PATH];
    const DWORD length = ::GetFullPathNameW(path.c_str(), MAX_PATH, full, nullptr);
    const DWORD attributes =
        length > 0 && length < MAX_PATH ? ::GetFileAttributesW(full) : INVALID_FILE_ATTRIBUTES;
    if (path.empty() || attributes == INVALID_FILE_ATTRIBUTES ||
        !(attributes & FILE_ATTRIBUTE_DIRECTORY)) {
      *error = "the folder \"" + folder.name + "\" is no directory: " + WideToUtf8(path);
      return false;
    }
    folder.root.assign(full, length);
    // "C:\" keeps its separator; any other root loses a trailing one.
    if (folder.root.size() > 3 && folder.root.back() == L'\\') folder.root.pop_back();
    const tern_example::Handle handle(OpenToAsk(folder.root));
    if (!tern_example::IsOpen(handle) || !FinalPath(handle.get(), &folder.final_root)) {
      *error = "the folder \"" + folder.name + "\" can't be opened: " + WideToUtf8(path);
      return false;
    }
    config->folders.push_back(folder);
  }
  if (config->folders.empty()) *error = "no <Folder> is configured";
  return !config->folders.empty();
}

}  // namespace

bool LoadConfig(const std::wstring& file, Config* config, std::string* error) {
  std::string bytes;
  if (!ReadFileBytes(file, &bytes)) {
    *error = "cannot read " + WideToUtf8(file);
    return false;
  }
  if (bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) bytes.erase(0, 3);
  std::wstring text;
  if (!Utf8ToWide(bytes, &text)) {
    *error = "the configuration is not UTF-8 text";
    return false;
  }
  try {
    KVT::CXml xml;
    if (!xml.LoadXML(text.c_str())) {
      *error = "the configuration is not well-formed XML";
      return false;
    }
    KVT::CXMLTag* root = xml.GetRoot();
    if (_wcsicmp(root->GetBuffer(), L"SearchServer") != 0) {
      *error = "the configuration's root element is not <SearchServer>";
      return false;
    }
    config->address = Value(xml.FindAttributeV(L"SearchServer", L"Listen", L"address", nullptr),
                            config->address.c_str());
    int port = 0;
    int workers = config->workers;
    if (!ParseNumber(Value(xml.FindAttributeV(L"SearchServer", L"Listen", L"port", nullptr), L""),
                     1, 65535, &port)) {
      *error = "<Listen port> must be a number from 1 to 65535";
      return false;
    }
    KVT::CXMLAttribute* count = xml.FindAttributeV(L"SearchServer", L"Workers", L"count", nullptr);
    if (count != nullptr && !ParseNumber(Value(count, L""), 1, 64, &workers)) {
      *error = "<Workers count> must be a number from 1 to 64";
      return false;
    }
    config->port = static_cast<unsigned short>(port);
    config->workers = workers;
    return ReadFolders(root, config, error);
  } catch (const _com_error& e) {
    char code[16];
    std::snprintf(code, sizeof code, "0x%08lX", static_cast<unsigned long>(e.Error()));
    *error = std::string("the XML parser failed with ") + code;
    return false;
  }
}

}  // namespace search_server
