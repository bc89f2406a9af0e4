#ifndef TERNCORELIB_TESTS_RANDOM_RANDOM_TEST_UTIL_H_
#define TERNCORELIB_TESTS_RANDOM_RANDOM_TEST_UTIL_H_

// What the random-input suites share: rounds of cases drawn from one seed each, texts placed
// against an unreadable page, the platform's own conversions, and rings filled with junk.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>

#include "foundation/temp_string.h"
#include "foundation/win.h"

namespace random_test {

// The seeds of one suite: 1 to `fixed` by default; TERN_FUZZ_SEED=N replays the round of seed N
// alone; TERN_FUZZ_SECONDS=S runs rounds from a fresh seed on for S seconds (./tern fuzz sets
// them). A failing round ends the suite with its seed and the command that replays it; a fault
// that ends the process prints them too.
class Rounds {
 public:
  explicit Rounds(std::uint32_t fixed) : fixed_(fixed), start_(::GetTickCount64()) {
    if (const char* seed = std::getenv("TERN_FUZZ_SEED")) {
      replay_ = true;
      seed_ = static_cast<std::uint32_t>(std::strtoul(seed, nullptr, 10) - 1);
    } else if (const char* seconds = std::getenv("TERN_FUZZ_SECONDS")) {
      budget_ms_ = std::strtoull(seconds, nullptr, 10) * 1000;
      LARGE_INTEGER now;
      ::QueryPerformanceCounter(&now);
      seed_ = static_cast<std::uint32_t>(now.QuadPart * 2654435761u) ^ ::GetCurrentProcessId();
    }
    first_ = seed_ + 1;
    ::SetUnhandledExceptionFilter(&ReportFault);
  }
  ~Rounds() {
    std::printf("[ rounds   ] %s: %u rounds, %llu cases, seeds %u to %u\n", TestName().c_str(),
                rounds_, static_cast<unsigned long long>(cases_), first_, seed_);
  }

  bool Next() {
    if (rounds_ > 0 && ::testing::Test::HasFailure()) {
      std::printf("FAILED in the round of seed %u; replay: %s\n", seed_, Replay(seed_).c_str());
      return false;
    }
    if (replay_ ? rounds_ > 0
                : budget_ms_ ? rounds_ > 0 && ::GetTickCount64() - start_ >= budget_ms_
                             : rounds_ >= fixed_) {
      return false;
    }
    ++rounds_;
    Current() = ++seed_;
    return true;
  }
  std::uint32_t seed() const { return seed_; }
  void Count(std::uint64_t cases) { cases_ += cases; }

 private:
  static std::uint32_t& Current() {
    static std::uint32_t seed = 0;
    return seed;
  }
  static std::string TestName() {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    return info ? std::string(info->test_suite_name()) + "." + info->name() : "?";
  }
  static std::string Replay(std::uint32_t seed) {
    return "./tern fuzz --seed " + std::to_string(seed) +
           (sizeof(void*) == 4 ? " --arch=i686" : " --arch=x86_64") + " --filter=" + TestName();
  }
  static LONG WINAPI ReportFault(EXCEPTION_POINTERS* fault) {
    const DWORD code = fault->ExceptionRecord->ExceptionCode;
    std::printf("FAULT 0x%08lx in the round of seed %u; replay: %s\n",
                static_cast<unsigned long>(code), Current(), Replay(Current()).c_str());
    std::fflush(stdout);
    ::ExitProcess(code);
  }

  std::uint32_t fixed_;
  std::uint64_t start_, budget_ms_ = 0, cases_ = 0;
  bool replay_ = false;
  std::uint32_t seed_ = 0, first_ = 0, rounds_ = 0;
};

// A read-write region between two pages that can be neither read nor written: a text placed at
// either edge faults on the first read past its end or before its start.
class GuardedRegion {
 public:
  explicit GuardedRegion(std::size_t bytes = 64 * 1024) {
    SYSTEM_INFO info;
    ::GetSystemInfo(&info);
    page_ = info.dwPageSize;
    bytes_ = (bytes + page_ - 1) / page_ * page_;
    base_ = static_cast<char*>(
        ::VirtualAlloc(nullptr, bytes_ + 2 * page_, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    DWORD old = 0;
    ::VirtualProtect(base_, page_, PAGE_NOACCESS, &old);
    ::VirtualProtect(base_ + page_ + bytes_, page_, PAGE_NOACCESS, &old);
  }
  ~GuardedRegion() { ::VirtualFree(base_, 0, MEM_RELEASE); }
  GuardedRegion(const GuardedRegion&) = delete;
  GuardedRegion& operator=(const GuardedRegion&) = delete;

  // `count` elements copied so that the last is the last before the page behind the region
  // (`at_end`), or the first is the first behind the page in front of it.
  template <typename T>
  T* Place(const T* source, std::size_t count, bool at_end) {
    T* at = at_end ? reinterpret_cast<T*>(base_ + page_ + bytes_) - count
                   : reinterpret_cast<T*>(base_ + page_);
    if (count != 0) std::memcpy(at, source, count * sizeof(T));
    return at;
  }
  // A string, with its terminator as the last element when `terminated`.
  template <typename T>
  T* Place(const std::basic_string<T>& text, bool at_end, bool terminated = true) {
    return Place(text.c_str(), text.size() + (terminated ? 1 : 0), at_end);
  }
  // The page in front: a text pointer that can't be read at all.
  template <typename T>
  const T* Unreadable() const {
    return reinterpret_cast<const T*>(base_);
  }

 private:
  std::size_t page_ = 0, bytes_ = 0;
  char* base_ = nullptr;
};

// Whether a read of an unreadable page arrives as the access fault that the platform's pointer
// guards (IsBadStringPtr and its kind) catch. 32-bit Wine run through QEMU's user-mode emulator
// reports it as an illegal instruction, which they let through: the probe notes the code that
// comes and makes an access fault of it, for its own read alone.
inline DWORD& ProbeFaultSeen() {
  static DWORD code = 0;
  return code;
}
inline LONG WINAPI ObserveProbeFault(EXCEPTION_POINTERS* fault) {
  DWORD& code = fault->ExceptionRecord->ExceptionCode;
  ProbeFaultSeen() = code;
  if (code == EXCEPTION_ILLEGAL_INSTRUCTION) code = EXCEPTION_ACCESS_VIOLATION;
  return EXCEPTION_CONTINUE_SEARCH;
}
inline bool FaultsAreCatchable() {
  static const bool catchable = [] {
    GuardedRegion region(1);
    void* handler = ::AddVectoredExceptionHandler(1, &ObserveProbeFault);
    const bool caught = ::IsBadReadPtr(region.Unreadable<char>(), 1) != 0;
    ::RemoveVectoredExceptionHandler(handler);
    return caught && ProbeFaultSeen() == EXCEPTION_ACCESS_VIOLATION;
  }();
  return catchable;
}
inline constexpr char kFaultsNotCatchable[] =
    "a read of an unreadable page arrives as an illegal instruction here (32-bit Wine through "
    "QEMU's emulator), which the platform's pointer guards do not catch";

// `text`, up to its first zero, as the platform converts it with a length of -1 into ample room
// prefilled with junk: exactly the units that the call counts, a terminator among them dropped.
// (Wine converts broken UTF-8 of a counted length differently from the same text with -1.)
inline std::wstring PlatformWide(const std::string& text, UINT code_page) {
  std::wstring out(2 * text.size() + 4, L'J');
  const int n = ::MultiByteToWideChar(code_page, 0, text.c_str(), -1, &out[0], int(out.size()));
  out.resize(n > 0 && out[n - 1] == L'\0' ? n - 1 : n > 0 ? n : 0);
  return out;
}
inline std::string PlatformNarrow(const std::wstring& text, UINT code_page) {
  std::string out(4 * text.size() + 4, 'J');
  const int n = ::WideCharToMultiByte(code_page, 0, text.c_str(), -1, &out[0], int(out.size()),
                                      nullptr, nullptr);
  out.resize(n > 0 && out[n - 1] == '\0' ? n - 1 : n > 0 ? n : 0);
  return out;
}

// Leaves in every slot of both rings `chars` - 1 characters of junk and a terminator, so that a
// result that lacks its own terminator reads on into junk rather than stop at a zero left behind.
inline void FillRingsWithJunk(std::uint32_t chars = 64) {
  for (int take = 0; take < 256; ++take) {
    char* narrow = nullptr;
    wchar_t* wide = nullptr;
    ASSERT_TRUE(KVT::KVTGetTmpString(narrow, chars) && KVT::KVTGetTmpString(wide, chars));
    std::memset(narrow, 'J', chars - 1);
    std::wmemset(wide, L'J', chars - 1);
    narrow[chars - 1] = '\0';
    wide[chars - 1] = L'\0';
  }
}

}  // namespace random_test

#endif  // TERNCORELIB_TESTS_RANDOM_RANDOM_TEST_UTIL_H_
