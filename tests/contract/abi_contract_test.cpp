// The library's interface as an application of another compiler meets it: every exported class
// used across the DLL boundary, built in whatever ABI this program is built in and linked to the
// DLL of that ABI. It reads the public fields that the DLL wrote, lets objects be made, copied
// and destroyed on either side, derives its own classes from the library's and runs them on the
// DLL's threads, and catches the exception that the DLL raises. A difference in layout, an
// exception that does not cross, or a static of the DLL that was never set up shows here.
//
// It has a harness of its own (GoogleTest needs a compiled C++ library, which one of the
// toolchains lacks) and prints "N passed, N failed". Every wait is bounded; sockets use the
// loopback address only. The program starts no COM of its own: the DLL's entry hook does.
#include "TernCoreLib.h"

#include <cstdio>
#include <cstring>
#include <cwchar>

namespace {

int g_passed = 0;
int g_failed = 0;
const char* g_case = "";

void Check(bool ok, const char* what, int line) {
  if (ok) {
    ++g_passed;
  } else {
    ++g_failed;
    std::printf("FAILED in %s, line %d: %s\n", g_case, line, what);
    std::fflush(stdout);  // Seen even if a later fault ends the process.
  }
}
#define CHECK(condition) Check((condition), #condition, __LINE__)

constexpr DWORD kPatienceMs = 5000;  // No wait here comes near it when things work.
constexpr unsigned kSentinel = 0x5E7712E1u;

// The start-up of the C++ runtime that the DLL links as this program does: a static with a dynamic
// initializer (run from the .CRT$XC table) and a function-local one (thread-safe, by a per-thread
// epoch in TLS), read on two threads. The DLL's own such statics (its processor feature table)
// start from zero when these fail, and then work, only slower: no result of the DLL shows it.
// (Initialized by a call that no compiler can fold to a constant.)
int g_initialized = ::GetCurrentProcessId() != 0 ? 42 : 41;

int LocalStatic() {
  static const int value = ::GetCurrentProcessId() != 0 ? 7 : 6;
  return value;
}

DWORD WINAPI ReadLocalStatic(void* result) {
  *static_cast<int*>(result) = LocalStatic();
  return 0;
}

void RuntimeStartUp() {
  CHECK(g_initialized == 42);
  int on_thread = 0;
  HANDLE thread = ::CreateThread(nullptr, 0, ReadLocalStatic, &on_thread, 0, nullptr);
  CHECK(thread != nullptr && ::WaitForSingleObject(thread, kPatienceMs) == WAIT_OBJECT_0);
  if (thread != nullptr) ::CloseHandle(thread);
  CHECK(on_thread == 7 && LocalStatic() == 7);
}

// Temporary strings: the narrow and the wide ring hand out an emptied text and give the same slot
// back after 256 takes (the ring of the DLL, set up by its entry hook).
void TemporaryStrings() {
  char* first = nullptr;
  CHECK(KVT::KVTGetTmpString(first, 32) == 1 && first != nullptr && first[0] == '\0');
  std::strcpy(first, "kept");
  char* later = nullptr;
  for (int i = 0; i < 255; ++i) KVT::KVTGetTmpString(later, 8);
  CHECK(later != first && std::strcmp(first, "kept") == 0);
  KVT::KVTGetTmpString(later, 8);
  CHECK(later == first && later[0] == '\0');
  wchar_t* wide = nullptr;
  CHECK(KVT::KVTGetTmpString(wide, 4) == 1 && wide != nullptr && wide[0] == L'\0');
  CHECK(KVT::KVTGetTmpString(wide, 0) == 0);
  const char* formatted = KVT::StrFormat("%d-%s", 42, "x");
  CHECK(formatted != nullptr && std::strcmp(formatted, "42-x") == 0);
}

// Base64: blocks that the DLL allocates go back through MemFree.
void Base64() {
  int length = 0;
  unsigned char* text = KVT::Base64EncodeString("Tern@", &length);
  CHECK(text != nullptr && length == 8 && std::memcmp(text, "VGVybk==", 8) == 0);
  int decoded_length = 0;
  unsigned char* unused = nullptr;
  unsigned char* bytes = KVT::Base64Decode(text, length, &unused, &decoded_length);
  CHECK(bytes != nullptr && decoded_length == 5 && std::memcmp(bytes, "Tern@", 5) == 0);
  KVT::MemFree(bytes);
  KVT::MemFree(text);
  void* block = KVT::MemAlloc(16);
  CHECK(block != nullptr && static_cast<unsigned char*>(block)[15] == 0);
  KVT::MemFree(block);
}

// String: made here and in the DLL (results by value, an environment variable), copied, and its
// fields read; tokens go to an array of this program's.
void Strings() {
  KVT::String list(L"alpha,beta,,gamma");
  CHECK(list.GetLength() == 17 && list.capacity >= 17 && list.data != nullptr &&
        std::wcscmp(list.data, L"alpha,beta,,gamma") == 0);
  {
    KVT::String copy(list);
    CHECK(copy.data != list.data && std::wcscmp(copy.data, list.data) == 0);
    KVT::String part = copy.SubStr(6, 4);  // Made by the DLL, destroyed here.
    CHECK(part.GetLength() == 4 && std::wcscmp(part.data, L"beta") == 0);
    copy = L"x";
    CHECK(std::wcscmp(list.data, L"alpha,beta,,gamma") == 0);
  }
  XArray<wchar_t*> tokens;
  CHECK(list.ToTokens(L',', tokens) == 4 && tokens.count == 4);
  CHECK(std::wcscmp(tokens[0], L"alpha") == 0 && std::wcscmp(tokens[2], L"") == 0 &&
        std::wcscmp(tokens[3], L"gamma") == 0 && tokens.entries[1]->owned);
  auto* on_heap = new KVT::String(L"made here, destroyed by the DLL's destructor");
  KVT::String value;
  ::SetEnvironmentVariableW(L"TERN_CONTRACT", L"from the environment");
  CHECK(KVT::GetEnvironmentVar(L"TERN_CONTRACT", value) &&
        std::wcscmp(value.data, L"from the environment") == 0);
  delete on_heap;
}

// CSearchQuery and CBuffer: the fields that SetTerm, assignment and Search write, read here, and
// the results read back through the library and through the results table directly.
void BufferAndSearch() {
  KVT::CSearchQuery<char> query;
  query.SetTerm("fox", 0, true);
  CHECK(query.termLength == 3 && std::strcmp(query.term, "fox") == 0);
  using Query = KVT::CSearchQuery<char>;
  CHECK(query.tableSize == 'x' + 1 && query.shiftTable[Query::ToBase('x')] == 1 &&
        query.shiftTable[Query::ToBase('F')] == 2 && query.shiftTable[Query::ToBase('a')] == 3);
  const char text[] = "The quick brown fox\njumps over\nA FOX!";
  const int length = static_cast<int>(sizeof(text) - 1);
  {
    KVT::CSearchQuery<char> shared(query);
    CHECK(shared.term == query.term && shared.shiftTable == query.shiftTable);
    auto* buffer = new KVT::CBuffer<char>;
    *buffer = text;
    CHECK(buffer->length == length && buffer->capacity >= length && buffer->data != nullptr &&
          std::strcmp(buffer->data, text) == 0 && buffer->results == nullptr);
    CHECK(buffer->Search(buffer->GetBuffer(), length, 1, shared, nullptr, nullptr, '\n') == 2);
    KVT::CBuffer<char> copy(*buffer);
    delete buffer;  // The copy keeps the block and the results.
    int line = 0;
    CHECK(copy.GetResultCount() == 2 && copy.results != nullptr && copy.results->count == 2);
    CHECK(copy.GetResult(0, line) == copy.data && line == 1);
    CHECK(copy.GetResult(1, line) == copy.data + 31 && line == 3 && copy.GetResultLength(1) == 6);
    const std::uint64_t second = (*copy.results)[1];
    CHECK(second >> 32 == 31 && (second & 0xFFFFFFFFu) == 3);
    CHECK(copy.ToLines() && copy.lines.count == 3 && std::strcmp(copy.lines[2], "A FOX!") == 0);
  }
  CHECK(query.termLength == 3 && std::strcmp(query.term, "fox") == 0);

  KVT::CSearchQuery<wchar_t> wide_query;
  wide_query.SetTerm(L"\x00E9t\x00E9", 0, false);
  KVT::CBuffer<wchar_t> wide(L"\x00E9t\x00E9 et \x00E9t\x00E9");
  CHECK(wide.length == 10 && wide.Search(0, wide_query) == 2 && wide_query.tableSize == 0xEA);
}

// CLock, CBitMask and CTWSync, with a thread of this program that the lock holds off and that
// signals the table.
struct LockArgs {
  KVT::CLock* lock;
  KVT::CTWSync* sync;
  volatile LONG entered;
};

DWORD WINAPI LockTaker(void* parameter) {
  auto* args = static_cast<LockArgs*>(parameter);
  args->lock->Lock();
  ::InterlockedExchange(&args->entered, 1);
  args->lock->Unlock();
  args->sync->Signal(5);
  return 0;
}

void Synchronisation() {
  KVT::CLock lock;
  lock.Lock();
  lock.Lock();
  CHECK(lock.count == 2 && lock.owner == ::GetCurrentThreadId() && lock.HaveLock() &&
        lock.section != nullptr);

  KVT::CTWSync sync;
  CHECK(sync.CreateEventW(0, 5, nullptr, false) != nullptr && sync.handleCount == 1 &&
        sync.handles[5] != nullptr && sync.types[5] == KVT::SyncEvent);
  CHECK(sync.CreateMutexW(0, 2, nullptr) != nullptr && sync.handleCount == 2);
  LockArgs args = {&lock, &sync, 0};
  HANDLE thread = ::CreateThread(nullptr, 0, LockTaker, &args, 0, nullptr);
  CHECK(thread != nullptr);
  if (thread == nullptr) return;
  CHECK(::WaitForSingleObject(thread, 100) == WAIT_TIMEOUT && args.entered == 0);
  lock.Unlock();
  lock.Unlock();
  CHECK(sync.Wait(1u << 5, static_cast<int>(kPatienceMs)) == 5);
  CHECK(::WaitForSingleObject(thread, kPatienceMs) == WAIT_OBJECT_0 && args.entered == 1);
  CHECK(lock.count == 0 && !lock.HaveLock());
  ::CloseHandle(thread);
  CHECK(sync.Wait(1u << 7, 0) == static_cast<unsigned>(KVT::CTWSync::BadSyncId));
  KVT::CTWSync copy(sync);  // The same handles; one of the copies closes them.
  CHECK(copy.handles[2] == sync.handles[2] && copy.Acquire(2, 0) == 1 && copy.Release(2));
  sync.CloseAll();
  CHECK(sync.handleCount == 0 && sync.handles[5] == nullptr);

  KVT::CBitMask mask;
  mask.SetSize(40, false);
  mask.Set(33, true);
  CHECK(mask.bitCount == 40 && mask.wordCount == 2 && mask.bitsPerWord == 32 &&
        mask.words[1] == 2u && mask.IsSet(33) && mask.IsClear(32));
  KVT::CBitMask other(mask);
  CHECK(other.words != mask.words && other.words[1] == 2u && other.IsSet(33) && !other.IsSet(1));
}

// Sockets: a CServerSocket with this program's listener accepts on the DLL's thread, a
// CClientSocket over the accepted handle receives on another into this program's receiver, and
// this program's message classes cut the stream into frames of a 4-byte little-endian length.
class FrameMsg : public KVT::CSocketMsg {
 public:
  int Process(void*) override { return 0; }
  int HeaderSize() const { return headerSize; }
  unsigned sentinel = kSentinel;  // Behind the base: a base laid out otherwise overwrites it.

 protected:
  int ParseHeader(int* msgLength, int* headerSizeOut, int* trailerSize) override {
    if (GetRecvSize() < 4) return 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(GetPacket());
    *msgLength = bytes[0] | bytes[1] << 8 | bytes[2] << 16 | (bytes[3] & 0x7F) << 24;
    *headerSizeOut = 4;
    *trailerSize = 0;
    return 0;
  }
};

class Frames : public KVT::CSocketMsgReceiver {
 public:
  using CSocketMsgReceiver::LockQueue;
  using CSocketMsgReceiver::Pop;
  using CSocketMsgReceiver::UnlockQueue;
  int Reusable() const { return reusable.count; }
  FrameMsg messages[4];
  int made = 0;
  unsigned sentinel = kSentinel;

 protected:
  KVT::CSocketMsg* CreateMessage() override { return made < 4 ? &messages[made++] : nullptr; }
};

class Peer : public KVT::ISOListener, public KVT::ISOReceiver {
 public:
  Peer()
      : listening_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)),
        arrived_(::CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}
  ~Peer() {
    if (connection != nullptr) {
      connection->Shutdown();
      connection->WaitForThreadExit(static_cast<int>(kPatienceMs));
      delete connection;
    }
    ::CloseHandle(listening_);
    ::CloseHandle(arrived_);
  }

  bool IsStopping() override { return stop; }
  bool OnListening(wchar_t const*, wchar_t const* ipAddress, unsigned short port) override {
    listened_port = port;
    listened_ip = std::wcscmp(ipAddress, L"127.0.0.1") == 0;
    ::SetEvent(listening_);
    return true;
  }
  bool OnAccept(KVT::CServerSocket*, unsigned int accepted) override {
    connection = new KVT::CClientSocket(this, accepted, 0);
    accepted_ok = connection->Receive(0) != nullptr;
    return true;
  }
  bool OnError(KVT::CServerSocket*, int) override {
    ::SetEvent(listening_);
    return true;
  }
  bool OnReceive(KVT::CClientSocket*, void* data, int length) override {
    receive_thread = ::GetCurrentThreadId();
    if (frames.AddMessage(data, length)) ::SetEvent(arrived_);
    return true;
  }

  bool WaitListening() { return ::WaitForSingleObject(listening_, kPatienceMs) == WAIT_OBJECT_0; }
  // Until `count` frames are ready, each wait bounded.
  bool WaitFrames(int count) {
    while (frames.GetQueueSize() < count) {
      if (::WaitForSingleObject(arrived_, kPatienceMs) != WAIT_OBJECT_0) return false;
    }
    return true;
  }

  Frames frames;
  KVT::CClientSocket* connection = nullptr;
  volatile bool stop = false;
  bool accepted_ok = false;
  bool listened_ip = false;
  unsigned short listened_port = 0;
  DWORD receive_thread = 0;

 private:
  HANDLE listening_;
  HANDLE arrived_;
};

// The length framing, fed chunks by this program as a receive loop would: a receiver subclass of
// this program's own, frames cut across chunks, and a header above the maximum refused.
class Lengths : public KVT::CLengthMsgReceiver {
 public:
  Lengths() : CLengthMsgReceiver(16) {}
  bool IsStopping() override { return false; }
  char frames[2][17] = {};
  int count = 0;
  int refused = 0;
  unsigned sentinel = kSentinel;

 protected:
  bool OnMessage(KVT::CClientSocket*, char* message, int length) override {
    if (count < 2 && length <= 16) std::memcpy(frames[count], message, length);
    ++count;
    return true;
  }
  void OnRefused(KVT::CClientSocket*) override { ++refused; }
};

void LengthFraming() {
  char stream[32];
  KVT::CLengthMsg::WriteHeader(stream, 3);
  std::memcpy(stream + 4, "one", 3);
  KVT::CLengthMsg::WriteHeader(stream + 7, 5);
  std::memcpy(stream + 11, "three", 5);
  KVT::CLengthMsg::WriteHeader(stream + 16, 17);  // One more than the maximum.
  Lengths lengths;
  CHECK(lengths.OnReceive(nullptr, stream, 5) && lengths.count == 0);
  CHECK(lengths.OnReceive(nullptr, stream + 5, 11) && lengths.count == 2);
  CHECK(std::strcmp(lengths.frames[0], "one") == 0 && std::strcmp(lengths.frames[1], "three") == 0);
  CHECK(!lengths.OnReceive(nullptr, stream + 16, 4) && lengths.refused == 1 && lengths.IsRefused());
  CHECK(lengths.GetMaxLength() == 16 && lengths.sentinel == kSentinel);
  KVT::CLengthMsg message(-5);
  KVT::CLengthMsg copy(message);
  CHECK(message.GetMaxLength() == 0 && copy.GetMaxLength() == 0 && !copy.IsRefused());
}

void SocketRoad() {
  WSADATA wsa;
  CHECK(::WSAStartup(MAKEWORD(2, 2), &wsa) == 0);
  // A port that was free a moment ago.
  SOCKET probe = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  int address_length = sizeof(address);
  ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &address_length);
  ::closesocket(probe);
  const unsigned short port = ::ntohs(address.sin_port);

  KVT::TSOSocketInfo info = {};
  info.family = AF_INET;
  info.protocol = static_cast<IPPROTO>(IPPROTO_TCP);
  info.type = SOCK_STREAM;
  std::wcscpy(info.host, L"127.0.0.1");
  info.port = port;
  {
    Peer peer;
    KVT::CServerSocket server(&peer, 0, &info);
    CHECK(server.Listen(0) == 1 && peer.WaitListening());
    CHECK(peer.listened_port == port && peer.listened_ip && server.GetPort() == port &&
          server.GetClass() == KVT::SocketClassServer);

    SOCKET client = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    DWORD timeout = kPatienceMs;
    ::setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<char*>(&timeout),
                 sizeof(timeout));
    CHECK(::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0);
    // Two frames; the first header in two pieces.
    const char stream[] = "\x05\x00\x00\x00hello\x06\x00\x00\x00world!";
    CHECK(::send(client, stream, 2, 0) == 2);
    ::Sleep(20);
    CHECK(::send(client, stream + 2, 17, 0) == 17);
    CHECK(peer.WaitFrames(2));

    peer.frames.LockQueue();
    auto* first = static_cast<FrameMsg*>(peer.frames.Pop());
    auto* second = static_cast<FrameMsg*>(peer.frames.Pop());
    CHECK(first == &peer.frames.messages[0] && second == &peer.frames.messages[1]);
    if (first != nullptr && second != nullptr) {
      CHECK(first->GetMsgLength() == 5 && std::memcmp(first->GetMsg(), "hello", 5) == 0 &&
            first->HeaderSize() == 4 && first->GetPacketSize() == 9);
      CHECK(second->GetMsgLength() == 6 && std::memcmp(second->GetMsg(), "world!", 6) == 0);
    }
    CHECK(peer.frames.Reusable() == 2 && peer.frames.GetQueueSize() == 0);
    peer.frames.UnlockQueue();
    CHECK(peer.frames.sentinel == kSentinel && peer.frames.messages[0].sentinel == kSentinel &&
          peer.frames.messages[1].sentinel == kSentinel);
    CHECK(peer.accepted_ok && peer.receive_thread != 0 &&
          peer.receive_thread != ::GetCurrentThreadId());

    CHECK(peer.connection != nullptr && peer.connection->Send("\x02\x00\x00\x00ok", 6) == 6 &&
          peer.connection->GetClass() == KVT::SocketClassClient);
    char answer[8] = {};
    int received = 0;
    while (received < 6) {
      const int more = ::recv(client, answer + received, 6 - received, 0);
      if (more <= 0) break;
      received += more;
    }
    CHECK(received == 6 && std::memcmp(answer + 4, "ok", 2) == 0);

    // The order the socket classes ask for: stop, shut down, wait, destroy.
    peer.stop = true;
    server.Shutdown();
    server.WaitForThreadExit(static_cast<int>(kPatienceMs));
    CHECK(::WaitForSingleObject(server.GetThread(), 0) == WAIT_OBJECT_0);
    ::closesocket(client);
  }
  ::WSACleanup();
}

// CXml: a tree of tags built by the DLL and read here, and the _com_error of what the DOM refuses
// caught here.
void Xml() {
  const wchar_t* document =
      L"<Settings xmlns:dt='urn:schemas-microsoft-com:datatypes'>"
      L"<Listener host='127.0.0.1' port='8080'/><count dt:dt='int'>forty-two</count></Settings>";
  KVT::CXml xml(document);
  KVT::CXMLTag* root = xml.GetRoot();
  CHECK(root != nullptr && xml.root == root);
  if (root == nullptr) return;
  CHECK(root->length == 8 && std::wcscmp(root->data, L"Settings") == 0 && root->parent == nullptr);
  KVT::CXMLAttribute* port = xml.FindAttributeV(L"settings", L"LISTENER", L"port", nullptr);
  CHECK(port != nullptr && port->ToInt() == 8080 && std::wcscmp(port->data, L"port") == 0);
  KVT::CXMLTag* listener = xml.FindTagV(L"Settings", L"Listener", nullptr);
  CHECK(listener != nullptr && listener->parent == root);
  if (listener != nullptr) {
    KVT::CXMLAttribute* host = listener->GetAttribute(L"host");
    CHECK(host != nullptr && std::wcscmp(host->GetValue(), L"127.0.0.1") == 0 &&
          listener->attributes.count == 1 && listener->attributes[0] == host);
  }

  HRESULT raised = S_OK;
  try {
    KVT::CXMLTag* count = xml.FindTagV(L"Settings", L"count", nullptr);
    if (count != nullptr) count->GetValue();
  } catch (const _com_error& error) {
    raised = error.Error();
  } catch (...) {
    raised = E_UNEXPECTED;  // Something, but not the _com_error that was thrown.
  }
  CHECK(raised == DISP_E_TYPEMISMATCH);
  raised = S_OK;
  try {
    KVT::CXml::GetXMLTextValue(nullptr);
  } catch (const _com_error& error) {
    raised = error.Error();
  } catch (...) {
    raised = E_UNEXPECTED;
  }
  CHECK(raised == E_POINTER);
  CHECK(!xml.LoadXML(L"<unclosed>") && xml.GetRoot() == nullptr);
}

struct Case {
  const char* name;
  void (*run)();
};

}  // namespace

int main() {
  const Case cases[] = {
      {"RuntimeStartUp", RuntimeStartUp},     {"TemporaryStrings", TemporaryStrings},
      {"Base64", Base64},
      {"Strings", Strings},                   {"BufferAndSearch", BufferAndSearch},
      {"Synchronisation", Synchronisation},   {"LengthFraming", LengthFraming},
      {"SocketRoad", SocketRoad},             {"Xml", Xml},
  };
  for (const Case& c : cases) {
    g_case = c.name;
    try {
      c.run();
    } catch (...) {
      Check(false, "an exception left the case", 0);
    }
  }
  std::printf("%d passed, %d failed\n", g_passed, g_failed);
  return g_failed == 0 ? 0 : 1;
}
