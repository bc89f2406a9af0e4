// i686 unwinds with DWARF-2 tables: an exception crosses from a DLL into the application only
// when both share libgcc's one unwinder. This checks the project's link settings do that.
#include <gtest/gtest.h>

#include <comdef.h>

#include "foundation/win.h"

extern "C" __declspec(dllimport) void TernRaiseComError(HRESULT hr);

namespace {

TEST(ComErrorTest, ExceptionFromADllReachesTheCaller) {
  for (HRESULT hr : {E_POINTER, E_OUTOFMEMORY, static_cast<HRESULT>(0x80070057)}) {
    SCOPED_TRACE(hr);
    bool caught = false;
    try {
      TernRaiseComError(hr);
    } catch (const _com_error& error) {
      caught = true;
      EXPECT_EQ(hr, error.Error());
    }
    EXPECT_TRUE(caught);
  }
}

}  // namespace
