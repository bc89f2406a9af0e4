#include "sync/sync_table.h"

#include "foundation/internal/scoped_handle.h"
#include "foundation/win.h"

namespace KVT {
namespace {

constexpr unsigned int kIdCount = 16;

// A wait time of the interface (-1 for no limit) as the system takes it.
DWORD WaitTime(int timeout) { return static_cast<DWORD>(timeout); }
static_assert(static_cast<DWORD>(-1) == INFINITE, "-1 must mean no limit");

}  // namespace

const int CTWSync::BadSyncId;
const int CTWSync::SyncTimeout;

CTWSync::CTWSync() : handleCount(0), threadId(::GetCurrentThreadId()), handles(), types() {}

CTWSync::CTWSync(CTWSync& other)
    : handleCount(other.handleCount), threadId(::GetCurrentThreadId()) {
  for (unsigned int id = 0; id < kIdCount; ++id) {
    handles[id] = other.handles[id];
    types[id] = other.types[id];
  }
}

CTWSync::~CTWSync() = default;

CTWSync& CTWSync::operator=(const CTWSync& other) {
  handleCount = other.handleCount;
  threadId = other.threadId;
  for (unsigned int id = 0; id < kIdCount; ++id) {
    handles[id] = other.handles[id];
    types[id] = other.types[id];
  }
  return *this;
}

void* CTWSync::operator[](unsigned int id) const { return handles[id]; }

void* CTWSync::GetHandle(unsigned int id) const { return id < kIdCount ? handles[id] : nullptr; }

unsigned int CTWSync::GetID(void* handle) const {
  for (unsigned int id = 0; id < kIdCount; ++id) {
    if (handles[id] == handle) return id;
  }
  return static_cast<unsigned int>(BadSyncId);
}

void* CTWSync::CreateEventW(unsigned int, unsigned int id, const wchar_t* name, bool manualReset) {
  if (id >= kIdCount || handles[id] != nullptr) return nullptr;
  internal::ScopedHandle event(::CreateEventW(nullptr, manualReset, FALSE, name));
  if (!event.IsValid()) return nullptr;
  // Another thread may have taken the id meanwhile; its entry stays, and the caller gets the
  // new handle unentered.
  InsertHandle(event.Get(), id, SyncEvent);
  return event.Take();
}

void* CTWSync::CreateMutexW(unsigned int, unsigned int id, const wchar_t* name) {
  if (id >= kIdCount || handles[id] != nullptr) return nullptr;
  internal::ScopedHandle mutex(::CreateMutexW(nullptr, FALSE, name));
  if (!mutex.IsValid()) return nullptr;
  InsertHandle(mutex.Get(), id, SyncMutex);  // As for events.
  return mutex.Take();
}

int CTWSync::SetHandle(void* handle, unsigned int id, TSyncType type) {
  if (id >= kIdCount) return 0;
  if (handles[id] == nullptr) return InsertHandle(handle, id, type);
  // The old handle goes, whatever the system makes of releasing or closing it.
  if (types[id] == SyncMutex) {
    ::ReleaseMutex(handles[id]);
    ::CloseHandle(handles[id]);
  } else if (types[id] == SyncEvent) {
    ::CloseHandle(handles[id]);
  }
  handles[id] = handle;
  types[id] = type;
  return 1;
}

int CTWSync::InsertHandle(void* handle, unsigned int id, TSyncType type) {
  if (handle == nullptr || id >= kIdCount || handles[id] != nullptr) return 0;
  handles[id] = handle;
  types[id] = type;
  ++handleCount;
  return 1;
}

bool CTWSync::IsSignalled(unsigned int id) {
  if (id >= kIdCount || handles[id] == nullptr) return false;
  return ::WaitForSingleObject(handles[id], 0) == WAIT_OBJECT_0;
}

bool CTWSync::Signal(unsigned int id) {
  if (id >= kIdCount || handles[id] == nullptr || types[id] != SyncEvent) return false;
  ::SetEvent(handles[id]);
  return true;
}

bool CTWSync::Clear(unsigned int id) {
  if (id >= kIdCount || handles[id] == nullptr) return false;
  if (types[id] == SyncEvent) {
    ::ResetEvent(handles[id]);
  } else if (types[id] == SyncMutex) {
    ::ReleaseMutex(handles[id]);
  }
  return true;
}

void CTWSync::ClearAll() {
  for (unsigned int id = 0; id < kIdCount; ++id) {
    if (handles[id] != nullptr) Clear(id);
  }
}

int CTWSync::Acquire(unsigned int id, int timeout) {
  if (id >= kIdCount || handles[id] == nullptr || types[id] != SyncMutex) return 0;
  const DWORD result = ::WaitForSingleObject(handles[id], WaitTime(timeout));
  return result == WAIT_OBJECT_0 || result == WAIT_ABANDONED ? 1 : 0;
}

int CTWSync::Release(unsigned int id) {
  if (id >= kIdCount || handles[id] == nullptr || types[id] != SyncMutex) return 0;
  return ::ReleaseMutex(handles[id]);
}

bool CTWSync::Close(unsigned int id) {
  if (id >= kIdCount || handles[id] == nullptr) return false;
  if (types[id] == SyncMutex) {
    ::ReleaseMutex(handles[id]);
    ::CloseHandle(handles[id]);
  } else if (types[id] == SyncEvent) {
    ::CloseHandle(handles[id]);
  }
  handles[id] = nullptr;
  types[id] = static_cast<TSyncType>(0);
  --handleCount;
  return true;
}

void CTWSync::CloseAll() {
  for (unsigned int id = 0; id < kIdCount; ++id) {
    if (handles[id] != nullptr) ::CloseHandle(handles[id]);
    handles[id] = nullptr;
    types[id] = static_cast<TSyncType>(0);
  }
  handleCount = 0;
}

unsigned int CTWSync::Wait(unsigned long mask, int timeout) {
  void* list[kIdCount];
  int count = 0;
  for (unsigned int id = 0; id < kIdCount; ++id) {
    if ((mask & (1ul << id)) == 0) continue;
    if (handles[id] == nullptr) return static_cast<unsigned int>(BadSyncId);
    list[count++] = handles[id];
  }
  return DoWait(count, list, timeout);
}

unsigned int CTWSync::DoWait(int count, void** list, int timeout) {
  if (count <= 0 || count > static_cast<int>(kIdCount)) return static_cast<unsigned int>(BadSyncId);
  for (int i = 0; i < count; ++i) {
    if (list[i] == nullptr) return static_cast<unsigned int>(BadSyncId);
  }
  const DWORD result =
      ::WaitForMultipleObjects(static_cast<DWORD>(count), list, FALSE, WaitTime(timeout));
  // WAIT_OBJECT_0 is 0, so a signalled handle comes back as its index in the list. The system
  // gives the lowest index when several are signalled, and the list rises by id.
  if (result < static_cast<DWORD>(count)) return GetID(list[result]);
  if (result == WAIT_TIMEOUT) return static_cast<unsigned int>(SyncTimeout);
  // A failed wait, or WAIT_ABANDONED_0 + i: an abandoned mutex is not counted as acquired here.
  return static_cast<unsigned int>(BadSyncId);
}

bool CTWSync::ValidateHandles() const {
  int taken = 0;
  for (unsigned int id = 0; id < kIdCount; ++id) {
    if (handles[id] != nullptr) ++taken;
  }
  return taken == handleCount;
}

}  // namespace KVT
