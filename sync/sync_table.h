#ifndef TERNCORELIB_SYNC_SYNC_TABLE_H_
#define TERNCORELIB_SYNC_SYNC_TABLE_H_

#include "foundation/export.h"

namespace KVT {

// The kind of handle held under an id of CTWSync. The table acts on these two; any other value
// is stored as given and makes a plain entry, which Close, Clear, ClearAll and SetHandle make no
// system call for, which Signal, Acquire and Release refuse, and which CloseAll, IsSignalled and
// Wait treat like any handle.
enum TSyncType : int {
  SyncEvent = 3,
  SyncMutex = 4,
};

// A numbered table of up to 16 events and mutexes (ids 0 to 15, chosen by the caller), with a
// wait on any subset of them.
//
// Every operation but operator[] refuses an id of 16 or more with 0, null or false, and changes
// nothing. The table has no lock: threads that share one lock around it themselves.
//
// The table owns its handles only in the sense that Close, CloseAll and SetHandle close them; the
// destructor closes nothing. Copies hold the same handle values and duplicate nothing, so in a
// group of copies exactly one should close.
class TERN_API CTWSync {
 public:
  // The outcomes of Wait other than an id, as they come out of its unsigned result
  // (0xFFFFFFFF and 0xFFFFFFFE).
  static const int BadSyncId = -1;
  static const int SyncTimeout = -2;

  CTWSync();
  // The same entries; threadId is the calling thread's.
  CTWSync(CTWSync& other);
  // Closes nothing.
  virtual ~CTWSync();

  // The same entries, and `other`'s threadId.
  CTWSync& operator=(const CTWSync& other);

  // handles[id], unchecked: `id` must be below 16.
  void* operator[](unsigned int id) const;
  // The handle of `id`, or null.
  void* GetHandle(unsigned int id) const;
  // The lowest id that holds `handle`, or BadSyncId. A null handle finds the lowest free id.
  unsigned int GetID(void* handle) const;

  // Creates a not-signalled event (named, or unnamed when `name` is null) under the free id `id`
  // and gives its handle; null if `id` is taken, in which case nothing is created, or if the
  // system fails. The first argument has no effect.
  void* CreateEventW(unsigned int, unsigned int id, const wchar_t* name, bool manualReset);
  // The same for a mutex that nobody owns yet.
  void* CreateMutexW(unsigned int, unsigned int id, const wchar_t* name);

  // Enters `handle` under `id`. A taken id is replaced: its old mutex is released and closed, its
  // old event closed (other types are left alone), and handleCount stays, so that a null
  // `handle` frees the id and leaves ValidateHandles false from then on. A free id takes only a
  // handle that is not null. 1 on success, else 0.
  int SetHandle(void* handle, unsigned int id, TSyncType type);

  // A zero-time wait on the handle: true only if it gives WAIT_OBJECT_0. This is a real wait: it
  // takes a free mutex (which the caller must then release) and resets an auto-reset event that
  // it finds signalled. An abandoned mutex gives false.
  bool IsSignalled(unsigned int id);
  // SetEvent on an event: true. False for a free id and any other type.
  bool Signal(unsigned int id);
  // ResetEvent on an event, ReleaseMutex on a mutex; true for any taken id, false for a free one.
  bool Clear(unsigned int id);
  // Clear on every taken id.
  void ClearAll();
  // Waits up to `timeout` ms (-1: no limit) for a mutex: 1 if acquired, an abandoned mutex
  // included; 0 on timeout, failure, a free id or an id that is not a mutex.
  int Acquire(unsigned int id, int timeout);
  // What ReleaseMutex gives, for a mutex; 0 for a free id and any other type.
  int Release(unsigned int id);
  // Frees `id`: a mutex is released and then closed, an event closed, other types are only
  // removed. False for a free id.
  bool Close(unsigned int id);
  // Closes every handle, of whatever type and without releasing mutexes, and empties the table.
  void CloseAll();

  // Waits up to `timeout` ms (-1: no limit) until one of the ids selected by the low 16 bits of
  // `mask` (bit id for id) is signalled, and gives that id: the lowest one when several are.
  // SyncTimeout on timeout. BadSyncId at once, without waiting, if no id is selected or a
  // selected id is free; BadSyncId also when the wait fails or meets an abandoned mutex (unlike
  // Acquire, Wait does not count that as acquired).
  unsigned int Wait(unsigned long mask, int timeout);

  // Whether handleCount equals the number of taken ids.
  bool ValidateHandles() const;

  // Number of handles entered.
  int handleCount;
  // The thread that built the object; nothing consults it.
  unsigned long threadId;
  // The handle of each id, null when the id is free, and its type.
  void* handles[16];
  TSyncType types[16];

 private:
  // Enters `handle` under the free id `id`: 1, or 0 if `handle` is null or `id` taken.
  int InsertHandle(void* handle, unsigned int id, TSyncType type);
  // The wait of Wait on a list of `count` handles.
  unsigned int DoWait(int count, void** list, int timeout);
};

}  // namespace KVT

#endif  // TERNCORELIB_SYNC_SYNC_TABLE_H_
