// Keeping threads in order: two threads hand work to each other through the events of a CTWSync
// table, and a CLock guards the slot in which the work lies.
#include "examples/tour/tour.h"

#include <cstdio>
#include <initializer_list>

#include "TernCoreLib.h"

namespace {

// Ids in the table.
constexpr unsigned int kWorkReady = 0;  // Set by the main thread when the slot holds a number.
constexpr unsigned int kWorkDone = 1;   // Set by the worker when the slot holds its answer.
constexpr unsigned int kStop = 2;       // Tells the worker to end.
constexpr int kPatienceMs = 5000;       // Nothing in this tour should take nearly that long.

struct Handover {
  KVT::CTWSync table;  // Filled before the worker starts and unchanged until it ends.
  KVT::CLock lock;     // Guards `slot`.
  int slot = 0;
};

DWORD WINAPI Worker(void* param) {
  Handover& handover = *static_cast<Handover*>(param);
  for (;;) {
    // One wait on two events: the lower id wins when both are set, so work is never dropped.
    const unsigned int id = handover.table.Wait(1u << kWorkReady | 1u << kStop, kPatienceMs);
    if (id != kWorkReady) {
      std::printf("  worker: %s, and ends\n", id == kStop ? "told to stop" : "waited in vain");
      return id == kStop ? 0 : 1;
    }
    handover.lock.Lock();
    const int number = handover.slot;
    handover.slot = number * number;
    handover.lock.Unlock();
    std::printf("  worker: squares %d\n", number);
    handover.table.Signal(kWorkDone);
  }
}

}  // namespace

bool TourSync() {
  TourHeading("Threads: a CTWSync table of events and a CLock");
  Handover handover;
  // Automatic-reset events: each signal lets exactly one wait through.
  bool ok = handover.table.CreateEventW(0, kWorkReady, nullptr, false) != nullptr &&
            handover.table.CreateEventW(0, kWorkDone, nullptr, false) != nullptr &&
            handover.table.CreateEventW(0, kStop, nullptr, true) != nullptr;
  std::printf("main: enters %d events in a table and starts a worker\n", handover.table.handleCount);
  HANDLE worker = ok ? ::CreateThread(nullptr, 0, Worker, &handover, 0, nullptr) : nullptr;
  if (worker == nullptr) {
    handover.table.CloseAll();
    return false;
  }

  for (int number : {3, 12, 25}) {
    handover.lock.Lock();
    handover.slot = number;
    handover.lock.Unlock();
    std::printf("main: hands over %d\n", number);
    handover.table.Signal(kWorkReady);
    if (handover.table.Wait(1u << kWorkDone, kPatienceMs) != kWorkDone) {
      std::printf("main: no answer came back\n");
      ok = false;
      break;
    }
    handover.lock.Lock();
    const int answer = handover.slot;
    handover.lock.Unlock();
    std::printf("main: gets %d back\n", answer);
    ok = ok && answer == number * number;
  }

  handover.table.Signal(kStop);
  // The worker ends at the latest kPatienceMs after its last event, so this wait cannot run out;
  // `handover` must outlive it.
  DWORD exit_code = 1;
  ::WaitForSingleObject(worker, 2 * kPatienceMs);
  ok = ok && ::GetExitCodeThread(worker, &exit_code) && exit_code == 0;
  ::CloseHandle(worker);
  // The table's destructor closes nothing: the events go here.
  handover.table.CloseAll();
  return ok;
}
